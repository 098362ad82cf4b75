#include "fuzz/support/check.h"

#include <stdio.h>
#include <stdlib.h>

void fuzz_require(bool holds, const char* what) {
    if (!holds) {
        fprintf(stderr, "wrong: %s\n", what);
        abort();
    }
}
