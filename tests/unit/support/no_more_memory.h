#pragma once

#include <stdlib.h>
#include <sys/resource.h>

namespace unit_test {

/* While it lives, the heap gets nothing more from the system, so that it has no room for anything
 * large. */
class no_more_memory {
  public:
    no_more_memory() {
        getrlimit(RLIMIT_AS, &before);
        const rlimit none = {0, before.rlim_max};
        setrlimit(RLIMIT_AS, &none);
    }

    ~no_more_memory() {
        setrlimit(RLIMIT_AS, &before);
    }

    no_more_memory(const no_more_memory&) = delete;
    no_more_memory& operator=(const no_more_memory&) = delete;

    /* False where memory cannot be limited: emulators do not keep to the limit, and the address
     * sanitizer's heap has no such end. */
    static bool possible() {
#if defined(__SANITIZE_ADDRESS__)
        return false;
#else
        const no_more_memory limit;
        void* volatile block = malloc(SIZE);
        const bool refused = block == nullptr;
        free(block);
        return refused;
#endif
    }

    /* Large enough to be refused. */
    static constexpr size_t SIZE = 32 << 20;

  private:
    rlimit before;
};

} // namespace unit_test
