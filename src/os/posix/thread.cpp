// Locks, manual-reset events and raw threads on pthreads. A lock is a recursive mutex because a Windows
// critical section may be re-entered by its owner and code written for one must behave the same here. An
// event is a mutex, a condition variable on the monotonic clock and a flag.
#include "mem/mem.h"
#include "os/os_internal.h"

#include <atomic>
#include <errno.h>
#include <new>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

static_assert(sizeof(pthread_mutex_t) <= sizeof(os_lock_t), "os_lock_t too small for a mutex");
static_assert(alignof(pthread_mutex_t) <= alignof(os_lock_t), "os_lock_t under-aligned for a mutex");

static pthread_mutex_t *_os_mutex(os_lock_t *lock) {
    return (pthread_mutex_t *) lock->opaque;
}

void os_lock_init(os_lock_t *lock) {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(_os_mutex(lock), &attr);
    pthread_mutexattr_destroy(&attr);
}

void os_lock_kill(os_lock_t *lock) {
    pthread_mutex_destroy(_os_mutex(lock));
}

void os_lock_enter(os_lock_t *lock) {
    pthread_mutex_lock(_os_mutex(lock));
}

void os_lock_leave(os_lock_t *lock) {
    pthread_mutex_unlock(_os_mutex(lock));
}

struct os_event_t {
    pthread_mutex_t mutex;
    pthread_cond_t cond;
    bool set;
};

os_event_t *os_event_create(bool initially_set) {
    os_event_t *e = (os_event_t *) mem_alloc(sizeof(os_event_t));
    pthread_condattr_t attr;
    int rc = pthread_condattr_init(&attr);
    if (rc == 0) {
        rc = pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    }
    if (rc == 0) {
        rc = pthread_cond_init(&e->cond, &attr);
        pthread_condattr_destroy(&attr);
    }
    if (rc == 0) {
        rc = pthread_mutex_init(&e->mutex, nullptr);
    }
    if (rc != 0) {
        debug_fatal(__FILE__, __LINE__, "os_event_create", "failed to create event %d", rc);
    }
    e->set = initially_set;
    return e;
}

void os_event_destroy(os_event_t *e) {
    if (!e) {
        return;
    }
    pthread_cond_destroy(&e->cond);
    pthread_mutex_destroy(&e->mutex);
    mem_free(e);
}

void os_event_set(os_event_t *e) {
    pthread_mutex_lock(&e->mutex);
    e->set = true;
    pthread_cond_broadcast(&e->cond);
    pthread_mutex_unlock(&e->mutex);
}

void os_event_reset(os_event_t *e) {
    pthread_mutex_lock(&e->mutex);
    e->set = false;
    pthread_mutex_unlock(&e->mutex);
}

bool os_event_wait(os_event_t *e, uint32_t timeout_ms) {
    pthread_mutex_lock(&e->mutex);
    if (timeout_ms == OS_INFINITE) {
        while (!e->set) {
            pthread_cond_wait(&e->cond, &e->mutex);
        }
    } else if (!e->set && timeout_ms > 0) {
        struct timespec deadline;
        clock_gettime(CLOCK_MONOTONIC, &deadline);
        deadline.tv_sec += timeout_ms / 1000;
        deadline.tv_nsec += (long) (timeout_ms % 1000) * 1000000;
        if (deadline.tv_nsec >= 1000000000) {
            deadline.tv_sec++;
            deadline.tv_nsec -= 1000000000;
        }
        while (!e->set) {
            if (pthread_cond_timedwait(&e->cond, &e->mutex, &deadline) == ETIMEDOUT) {
                break;
            }
        }
    }
    bool set = e->set;
    pthread_mutex_unlock(&e->mutex);
    return set;
}

struct os_raw_thread_t {
    pthread_t thread;
    os_thread_proc_t proc;
    void *arg;
    // The kernel's id of the thread, known once it runs; the priority asked for before that is applied by
    // the thread itself on start.
    std::atomic<int> tid;
    std::atomic<int> priority;
};

// Windows priorities as nice values. Raising a thread above normal needs privileges that a normal user
// lacks; the call then fails quietly and the thread keeps its level, which only costs speed.
static int _os_nice_of(int priority) {
    if (priority == 0x10000) {
        return 19; // THREAD_MODE_BACKGROUND_BEGIN
    }
    if (priority == 0x20000) {
        return 0; // THREAD_MODE_BACKGROUND_END
    }
    if (priority <= -15) {
        return 19;
    }
    if (priority >= 15) {
        return -20;
    }
    // LOWEST -2 and BELOW_NORMAL -1 lower by 10 and 5 steps; ABOVE_NORMAL and HIGHEST raise likewise.
    int nice = -priority * 5;
    return nice < -20 ? -20 : (nice > 19 ? 19 : nice);
}

static void _os_apply_priority(int tid, int priority) {
    setpriority(PRIO_PROCESS, (id_t) tid, _os_nice_of(priority));
}

static void *_os_raw_thread_proc(void *arg) {
    os_raw_thread_t *t = (os_raw_thread_t *) arg;
    int tid = (int) syscall(SYS_gettid);
    t->tid.store(tid);
    int priority = t->priority.load();
    if (priority != OS_PRIORITY_NORMAL) {
        _os_apply_priority(tid, priority);
    }
    t->proc(t->arg);
    return nullptr;
}

os_raw_thread_t *os_raw_thread_start(os_thread_proc_t proc, void *arg) {
    os_raw_thread_t *t = (os_raw_thread_t *) mem_alloc(sizeof(os_raw_thread_t));
    t->proc = proc;
    t->arg = arg;
    new (&t->tid) std::atomic<int>(0);
    new (&t->priority) std::atomic<int>(OS_PRIORITY_NORMAL);
    int rc = pthread_create(&t->thread, nullptr, _os_raw_thread_proc, t);
    if (rc != 0) {
        mem_free(t);
        errno = rc;
        return nullptr;
    }
    return t;
}

void os_raw_thread_join(os_raw_thread_t *t) {
    if (!t) {
        return;
    }
    pthread_join(t->thread, nullptr);
    mem_free(t);
}

void os_raw_thread_set_priority(os_raw_thread_t *t, int priority) {
    if (!t) {
        return;
    }
    t->priority.store(priority);
    int tid = t->tid.load();
    if (tid) {
        _os_apply_priority(tid, priority);
    }
}

void os_sleep_ms(uint32_t ms) {
    if (ms == 0) {
        sched_yield();
        return;
    }
    struct timespec ts = {(time_t) (ms / 1000), (long) (ms % 1000) * 1000000};
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

uint32_t os_thread_id() {
    return (uint32_t) syscall(SYS_gettid);
}

// Nothing to set up per thread on Linux.
int os_thread_enter() {
    return 0;
}

void os_thread_leave(int token) {}
