#ifndef ZELK_BENCH_RATIO_REPORTER_H
#define ZELK_BENCH_RATIO_REPORTER_H

// Runs the registered benchmarks and prints, after the usual lines, one row per operation: the
// median of each contestant and how many times faster ours is.
//
// A benchmark is named "operation/contestant", ours being "zelk". Its figure is the counter "ns"
// when it sets one (a cost per item that the benchmark worked out, for instance over two
// processes), otherwise the real time of an iteration. Repetitions are interleaved at random, so
// that a drift of the machine falls on all contestants alike.
int RunWithRatios(int argc, char** argv);

#endif
