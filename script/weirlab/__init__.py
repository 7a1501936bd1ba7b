"""Building blocks of the demo, the benchmarks and the tests of the real program."""
