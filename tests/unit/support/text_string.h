#pragma once

#include <string_view>

#include "core/sstr.h"

namespace unit_test {

/* An sstr of a test's own, for calls that borrow one: text("value"). */
class text {
  public:
    explicit text(std::string_view bytes)
        : s(sstr_new(bytes.data(), static_cast<uint32_t>(bytes.size()))) {}
    ~text() {
        sstr_free(&s);
    }
    text(const text&) = delete;
    text& operator=(const text&) = delete;
    operator sstr() const {
        return s;
    }

  private:
    sstr s;
};

/* All bytes of a string. */
inline std::string_view bytes_of(const char* s) {
    return s != nullptr ? std::string_view(s, sstr_length(s)) : std::string_view();
}

} // namespace unit_test
