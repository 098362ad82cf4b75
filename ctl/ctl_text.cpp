#include "ctl/ctl_text.h"

#include <string.h>

ctl_text ctl_text_of(const char* string) {
    return {string, strlen(string)};
}
