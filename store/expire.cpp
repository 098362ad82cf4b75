#include "store/expire.h"

#include <stdint.h>
#include <sys/time.h>

#include "core/log.h"
#include "core/pool.h"
#include "store/algor.h"
#include "store/object.h"

namespace {

constexpr int32_t SCAN_MS = 1000;

struct sweep_clock {
    int64_t sec;
    int64_t usec;
};

/* When the last scan was; zero before the first. */
sweep_clock last_scan;

/* Tells whether the object's time is up. For a clock that was set back the count restarts. */
bool check_expiry(object* obj, uint32_t now) {
    switch (obj->flags & OBJ_EXPIRE_MASK) {
    case OBJ_EXPIRE_ABSOLUTE:
        return obj->expire_base < now;
    case OBJ_EXPIRE_TTL:
        if (now < obj->expire_base) {
            obj->expire_base = now;
            return false;
        }
        return now - obj->expire_base >= obj->expire_arg;
    default:
        return false;
    }
}

/* Returns the expired objects, linked through expired_next, the last found first. */
object* find_expired(uint32_t now) {
    object* expired = nullptr;
    htable_walk walk = htable_walk_start(object_keyspace());
    while (object* obj = static_cast<object*>(htable_walk_next(&walk))) {
        if (!check_expiry(obj, now)) {
            continue;
        }
        object_set_flags(obj, OBJ_DEAD);
        obj->expired_next = expired;
        expired = obj;
        LOG(LOG_DEBUG, "add to expired list");
    }
    return expired;
}

void destroy(object* obj) {
    const char* type = object_type_name(obj);
    LOG(LOG_DEBUG, "\"%s\"(%s): expired.", obj->key, type);
    object_free_value(obj, false);
    LOG(LOG_DEBUG, "\"%s\"(%s): destroyed", obj->key, type);
    htable_del(object_keyspace(), obj->key);
    sstr_free(&obj->key);
    pool_delete(obj);
}

void scan(uint32_t now) {
    object* next;
    for (object* obj = find_expired(now); obj != nullptr; obj = next) {
        next = obj->expired_next;
        destroy(obj);
    }
}

} // namespace

void object_expire_sweep() {
    if (object_keyspace() == nullptr) {
        return;
    }
    timeval tv;
    gettimeofday(&tv, nullptr);
    const sweep_clock now = {tv.tv_sec, tv.tv_usec};
    if (last_scan.sec == 0 && last_scan.usec == 0) {
        last_scan = now;
        return;
    }
    /* 32 bits wide: after a jump of weeks the scan may come a second later, and the clock is right
     * again. */
    const int32_t elapsed =
        static_cast<int32_t>((now.usec - last_scan.usec) / 1000 + (now.sec - last_scan.sec) * 1000);
    if (elapsed >= 0 && elapsed < SCAN_MS) {
        return;
    }
    if (elapsed >= 0) {
        scan(static_cast<uint32_t>(now.sec));
    }
    last_scan = now;
}

int expire_timer_cb(void*) {
    object_expire_sweep();
    return 0;
}

void expire_init() {
    last_scan = {};
}
