/*
 * routerkit-demo: the library's basic services on their own.
 *
 *   routerkit-demo [FILE [KEY...]]
 *
 * Prints the program's own name and the tick, reads KEYs (default: a few
 * identity keys) from a key/value FILE (default: the sample next to the
 * sources), writes a line per value to the process's own log file under
 * /tmp/log and prints what that file now holds.
 */
#include <routerkit/config.h>
#include <routerkit/log.h>

#include <stdio.h>
#include <string.h>

#ifndef RK_DEMO_SAMPLE
#define RK_DEMO_SAMPLE "examples/sample/version"
#endif

static const char *const default_keys[] = {"product_name", "firmware_version", "hardware_version",
                                           "model", "serial_number"};

int main(int argc, char **argv) {
  const char *path = argc > 1 ? argv[1] : RK_DEMO_SAMPLE;
  char dir[256];
  char name[64];
  char logpath[128];
  char line[512];
  int i, nkeys = argc > 2 ? argc - 2 : (int)(sizeof default_keys / sizeof default_keys[0]);
  FILE *log;

  memset(dir, 0, sizeof dir);
  memset(name, 0, sizeof name);
  if (get_executable_path(dir, sizeof dir - 1, name, sizeof name - 1) < 0) {
    fprintf(stderr, "cannot read /proc/self/exe\n");
    return 1;
  }
  printf("name:  %s (in %s)\n", name, dir);
  printf("tick:  %llu ms\n", (unsigned long long)GetTickCount());
  printf("file:  %s\n", path);

  for (i = 0; i < nkeys; i++) {
    const char *key = argc > 2 ? argv[i + 2] : default_keys[i];
    char value[64];
    int n;

    memset(value, 0, sizeof value);
    n = getValueFromFile(path, key, value, (int)sizeof value);
    if (n < 0) {
      printf("  %-18s (cannot read %s)\n", key, path);
      return 1;
    }
    if (n == 0 && value[0] == '\0')
      printf("  %-18s (not set)\n", key);
    else
      printf("  %-18s %s\n", key, value);
    log_printf_to_flash("%s=%s\n", key, value);
  }
  log_printf_to_flash("read %d keys from %s, tick %llu\n", nkeys, path,
                      (unsigned long long)GetTickCount());

  snprintf(logpath, sizeof logpath, "/tmp/log/%s.log", name);
  printf("log:   %s, last lines:\n", logpath);
  log = fopen(logpath, "r");
  if (!log) {
    perror(logpath);
    return 1;
  }
  {
    /* keep the last nkeys + 1 lines: what this run wrote */
    static char ring[16][512];
    int n = 0, keep = nkeys + 1 < 16 ? nkeys + 1 : 16;
    while (fgets(line, sizeof line, log)) {
      memcpy(ring[n % keep], line, sizeof line);
      n++;
    }
    for (i = n > keep ? n - keep : 0; i < n; i++) printf("  %s", ring[i % keep]);
  }
  fclose(log);
  return 0;
}
