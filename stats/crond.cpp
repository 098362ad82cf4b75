#include "stats/crond.h"

#include <dirent.h>
#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/log.h"
#include "core/text.h"
#include "loop/loop.h"
#include "stats/tool.h"
#include "store/algor.h"

namespace {

constexpr uint32_t TICK_MS = 1000;
constexpr char FOLDER[] = "/usr/lib/lua/tplugins/";
constexpr uint32_t TASK_LIMIT = 33;
constexpr uint32_t LIST_MAX = 32;
constexpr uint32_t REFUSED_MARKS = 4096;
constexpr size_t NAME_SIZE = 64;

struct crond_task {
    char name[NAME_SIZE];
    uint32_t ticks;      /* since the last run */
    int32_t interval;    /* ticks; 0 runs once, below 0 never */
    uint32_t elapsed_ms; /* since the last run; kept, not used elsewhere */
    uint32_t active;     /* 0 once a run-once task has run */
    crond_task* next;
};

struct crond_task_list {
    uint32_t max; /* never consulted: TASK_LIMIT holds */
    uint32_t count;
    crond_task* head; /* in order of insertion */
};

struct crond_state {
    bool started;                         /* the first tick has come */
    crond_task_list* tasks;               /* made on the first tick; null when that failed */
    uint32_t refused[REFUSED_MARKS / 32]; /* a bit for the hashes of names that were spoken of */
};

crond_state state;

void make_list() {
    state.started = true;
    state.tasks = static_cast<crond_task_list*>(calloc(1, sizeof(crond_task_list)));
    if (state.tasks != nullptr) {
        state.tasks->max = LIST_MAX;
    } else {
        LOG(LOG_ERROR, "tsk_list is NULL in function (%s) line (%d)", "__crond_ontimer", 177);
    }
}

int32_t interval_of(const char* name) {
    char* end;
    const int32_t interval = text_parse_int32(name, &end, 10);
    return end == name ? -1 : interval;
}

/* The link to the first task whose name begins with `name`; the link behind the last task when
 * there is none. */
crond_task** find_link(const char* name) {
    const size_t length = strlen(name);
    crond_task** link = &state.tasks->head;
    while (*link != nullptr && strncmp((*link)->name, name, length) != 0) {
        link = &(*link)->next;
    }
    return link;
}

void insert_task(const char* name) {
    crond_task** link = find_link(name);
    if (*link != nullptr) {
        return;
    }
    crond_task* task = static_cast<crond_task*>(calloc(1, sizeof(crond_task)));
    if (task == nullptr) {
        return;
    }
    memcpy(task->name, name, strlen(name));
    task->interval = interval_of(name);
    task->active = 1;
    *link = task;
    state.tasks->count++;
    LOG(LOG_DEBUG, "insert (%s) to task_list (%d)", task->name, task->interval);
}

void remove_task(const char* name) {
    crond_task** link = find_link(name);
    crond_task* task = *link;
    if (task == nullptr) {
        return;
    }
    *link = task->next;
    free(task);
    state.tasks->count--;
    LOG(LOG_DEBUG, "remove (%s) from task_list", name);
}

void refuse(const char* name) {
    const uint32_t mark = htable_hash(name) % REFUSED_MARKS;
    uint32_t* word = &state.refused[mark / 32];
    const uint32_t bit = 1U << mark % 32;
    if ((*word & bit) != 0 || !log_wants(LOG_WARN)) {
        return;
    }
    *word |= bit;
    log_write(LOG_WARN, "plug-in (%s) is not listed: its name has more than %d bytes", name,
              static_cast<int>(NAME_SIZE - 1));
}

void look_at_entry(const char* name) {
    char path[sizeof FOLDER + NAME_MAX];
    snprintf(path, sizeof path, "%s%s", FOLDER, name);
    const bool executable = access(path, X_OK) == 0;
    struct stat status;
    if (executable && stat(path, &status) == 0 && S_ISREG(status.st_mode)) {
        if (strlen(name) >= NAME_SIZE) {
            refuse(name);
        } else if (state.tasks->count < TASK_LIMIT) {
            insert_task(name);
        }
    }
    if (!executable) {
        remove_task(name);
    }
}

void read_folder() {
    DIR* folder = opendir(FOLDER);
    if (folder == nullptr) {
        return;
    }
    while (const dirent* entry = readdir(folder)) {
        if (entry->d_name[0] != '.') {
            look_at_entry(entry->d_name);
        }
    }
    closedir(folder);
}

/* The shell puts the script into the background and returns at once. */
void start_script(const crond_task* task) {
    char command[sizeof FOLDER + NAME_SIZE + 1];
    snprintf(command, sizeof command, "%s%s&", FOLDER, task->name);
    tool_start(command);
}

void tick(crond_task* task) {
    if (task->active == 0 || task->interval < 0) {
        return;
    }
    if (task->interval == 0) {
        task->active = 0;
        start_script(task);
        return;
    }
    task->ticks++;
    if (task->ticks < static_cast<uint32_t>(task->interval)) {
        task->elapsed_ms = task->ticks * 1000;
        return;
    }
    task->ticks = 0;
    task->elapsed_ms = 0;
    start_script(task);
}

void forget_all() {
    while (state.tasks != nullptr && state.tasks->head != nullptr) {
        crond_task* next = state.tasks->head->next;
        free(state.tasks->head);
        state.tasks->head = next;
    }
    free(state.tasks);
    state = {};
}

} // namespace

int __crond_ontimer(void*) {
    if (!state.started) {
        make_list();
    }
    if (state.tasks == nullptr) {
        return 0;
    }
    read_folder();
    for (crond_task* task = state.tasks->head; task != nullptr; task = task->next) {
        tick(task);
    }
    return 0;
}

void module_crond_start() {
    forget_all();
    loop_add_timer(TICK_MS, __crond_ontimer, nullptr);
}
