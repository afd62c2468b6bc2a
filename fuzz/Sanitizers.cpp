// What the sanitizers are told when these programs are built with them. A size that a peer claims
// must not cost the memory it claims: such an allocation fails, which the C libraries report. Freed
// memory is used again soon enough to stay in the cache, and only the function that allocates is
// written down: the stacks of all allocations take longer than the library. ASAN_OPTIONS overrides
// it.
extern "C" const char* __asan_default_options();

extern "C" __attribute__((visibility("default"))) const char* __asan_default_options() {
  return "allocator_may_return_null=1:max_allocation_size_mb=256:quarantine_size_mb=1:"
         "thread_local_quarantine_size_kb=64:malloc_context_size=1";
}
