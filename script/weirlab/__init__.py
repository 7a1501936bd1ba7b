"""What the demo, the benchmarks and the tests of the real program are made of."""
