#include "core/fault.h"

/* The handler is declared only where assertions are. */
#undef NDEBUG
#include <assert.h>
#include <stdlib.h>
#include <unistd.h>

void fault_abort(const char* expression, const char* unit, int line, const char* function) {
#ifdef __UCLIBC__
    __assert(expression, unit, line, function);
#else
    __assert_fail(expression, unit, static_cast<unsigned>(line), function);
#endif
}

void fault_no_memory() {
    static const char message[] = "out of memory\n";
    /* The process ends either way; there is nobody left to tell of a failed write. */
    (void)!write(STDERR_FILENO, message, sizeof message - 1);
    abort();
}
