-- reachd's hook: on_round() gets the results of each round,
-- {targets = {{label =, host =, address =, sent =, received =, avg_ms =}...}},
-- and may call back into the daemon through the object reachd.
function on_round(round)
  local down = {}
  for _, t in ipairs(round.targets) do
    if t.received == 0 then down[#down + 1] = t.label end
  end
  if #down > 0 then
    reachd:log{level = "warn", message = "unreachable: " .. table.concat(down, ", ")}
  end
  local delay = reachd:delay()
  if delay.mean then
    reachd:log{message = "mean internet delay " .. delay.mean .. " ms"}
  end
end
