// A program whose own path the tests choose: it prints how
// get_executable_path splits that path ("result|dir|name"), or with the
// argument "flash" writes one message to its own log file.
#include <routerkit/log.h>

#include <stdio.h>
#include <string.h>

int main(int argc, char **argv) {
  if (argc > 1 && strcmp(argv[1], "flash") == 0) {
    log_printf_to_flash("probe\n");
    return 0;
  }
  char dir[256] = {0};
  char name[64] = {0};
  long long result = get_executable_path(dir, sizeof dir - 1, name, sizeof name - 1);
  printf("%lld|%s|%s\n", result, dir, name);
  return 0;
}
