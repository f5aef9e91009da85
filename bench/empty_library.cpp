// A C++ shared object with nothing in it: what loading any of them costs.
extern "C" __attribute__((visibility("default"))) int eas_bench_nothing() {
    return 0;
}
