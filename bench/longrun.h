/* The samples of a long run, for C and C++ programs alike: the heap in use
 * (glibc's mallinfo2: uordblks + hblkhd), the open descriptors and the
 * resident memory, taken before the first operation and after 1 %, 10 %,
 * 50 % and 100 % of them, and printed as one line for bench/run-longrun.sh:
 *   longrun|NAME|COUNT|HEAP0|HEAP1|HEAP10|HEAP50|HEAP100|FDS0|FDS100|RSS10|RSS50|RSS100|SECONDS
 * A program calls longRunStep at quiet points (nothing half done), and a
 * run that keeps a Lua state collects its garbage in `settle` first. */
#ifndef RK_BENCH_LONGRUN_H
#define RK_BENCH_LONGRUN_H

#include <dirent.h>
#include <malloc.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#define LONG_RUN_SAMPLES 5

typedef struct LongRunSample {
  size_t heap;
  int fds;
  long rssKb;
} LongRunSample;

typedef struct LongRun {
  const char *name;
  unsigned long total, next;
  int taken;
  LongRunSample at[LONG_RUN_SAMPLES];
  struct timespec start;
  void (*settle)(void *arg);
  void *settleArg;
} LongRun;

static const unsigned kLongRunPermille[LONG_RUN_SAMPLES] = {0, 10, 100, 500, 1000};

static inline int longRunFds(void) {
  DIR *dir = opendir("/proc/self/fd");
  int n = -1; /* the directory's own descriptor */
  if (!dir) return -1;
  while (readdir(dir)) n++;
  closedir(dir);
  return n - 2; /* . and .. */
}

static inline long longRunRssKb(void) {
  FILE *f = fopen("/proc/self/status", "r");
  char line[128];
  long kb = -1;
  while (f && fgets(line, sizeof line, f))
    if (sscanf(line, "VmRSS: %ld", &kb) == 1) break;
  if (f) fclose(f);
  return kb;
}

static inline void longRunSample(LongRun *r) {
  LongRunSample *s = &r->at[r->taken];
  struct mallinfo2 m;
  if (r->settle) r->settle(r->settleArg);
  m = mallinfo2();
  s->heap = m.uordblks + m.hblkhd;
  s->fds = longRunFds();
  s->rssKb = longRunRssKb();
  if (++r->taken < LONG_RUN_SAMPLES) r->next = r->total * kLongRunPermille[r->taken] / 1000;
}

/* Takes the "before" sample and starts the clock. */
static inline void longRunBegin(LongRun *r, const char *name, unsigned long total) {
  r->name = name;
  r->total = total;
  r->taken = 0;
  longRunSample(r);
  clock_gettime(CLOCK_MONOTONIC, &r->start);
}

/* `done` operations are complete; samples when a mark is reached, prints the
 * line after the last. */
static inline void longRunStep(LongRun *r, unsigned long done) {
  struct timespec now;
  const LongRunSample *a = r->at;
  if (r->taken >= LONG_RUN_SAMPLES || done < r->next) return;
  longRunSample(r);
  if (r->taken < LONG_RUN_SAMPLES) return;
  clock_gettime(CLOCK_MONOTONIC, &now);
  printf("longrun|%s|%lu|%zu|%zu|%zu|%zu|%zu|%d|%d|%ld|%ld|%ld|%.1f\n", r->name, r->total, a[0].heap, a[1].heap,
         a[2].heap, a[3].heap, a[4].heap, a[0].fds, a[4].fds, a[2].rssKb, a[3].rssKb, a[4].rssKb,
         (double)(now.tv_sec - r->start.tv_sec) + (double)(now.tv_nsec - r->start.tv_nsec) / 1e9);
  fflush(stdout);
}

#endif /* RK_BENCH_LONGRUN_H */
