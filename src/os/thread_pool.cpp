// The thread pool. Starting a real thread costs far more than a search, so a thread whose work is done is
// parked and handed the next proc. Each pooled thread owns two manual-reset events: go (the owner has
// stored a proc for it) and done (its proc has returned). The parked list is a doubly linked list under
// the pool lock; a running thread is on no list and belongs to whoever created it.
#include "mem/mem.h"
#include "os/os_internal.h"

#include <atomic>

bool reuse_threads = true;

// Seven words, in this order: the two links, the real thread, the work, and the two events.
struct os_thread_t {
    os_thread_t *next;
    os_thread_t *prev;
    os_raw_thread_t *handle;
    os_thread_proc_t proc;
    void *arg;
    os_event_t *go;
    os_event_t *done;
};

static os_lock_t _os_pool_lock;
static std::atomic<int> _os_pool_lock_state{0}; // 0 none, 1 being made, 2 ready
static os_thread_t *_os_parked_head;
static os_thread_t *_os_parked_tail;
static int _os_parked_count;
static std::atomic<int> _os_thread_serial{0};

// The pool lock is made on first use, so that the pool needs no init call and works in tests and before
// os_init alike; the state word makes the first use safe when two threads race for it.
static os_lock_t *_os_pool_lock_get() {
    if (_os_pool_lock_state.load(std::memory_order_acquire) == 2) {
        return &_os_pool_lock;
    }
    int expected = 0;
    if (_os_pool_lock_state.compare_exchange_strong(expected, 1, std::memory_order_acq_rel)) {
        os_lock_init(&_os_pool_lock);
        _os_pool_lock_state.store(2, std::memory_order_release);
    } else {
        while (_os_pool_lock_state.load(std::memory_order_acquire) != 2) {
            os_sleep_ms(0);
        }
    }
    return &_os_pool_lock;
}

static void _os_pool_thread_proc(void *arg) {
    os_thread_t *t = (os_thread_t *) arg;
    int token = os_thread_enter();
    // proc is read only after go was seen, and go is set only after proc was stored, so the event's own
    // synchronisation orders the two.
    while (t->proc) {
        os_event_reset(t->go);
        t->proc(t->arg);
        os_event_set(t->done);
        os_event_wait(t->go, OS_INFINITE);
    }
    os_thread_leave(token);
}

static os_thread_t *_os_pool_take_parked() {
    os_thread_t *t = _os_parked_head;
    if (!t) {
        return nullptr;
    }
    _os_parked_head = t->next;
    if (_os_parked_head) {
        _os_parked_head->prev = nullptr;
    } else {
        _os_parked_tail = nullptr;
    }
    t->next = nullptr;
    t->prev = nullptr;
    _os_parked_count--;
    return t;
}

static void _os_pool_park(os_thread_t *t) {
    t->next = nullptr;
    t->prev = _os_parked_tail;
    if (_os_parked_tail) {
        _os_parked_tail->next = t;
    } else {
        _os_parked_head = t;
    }
    _os_parked_tail = t;
    _os_parked_count++;
}

// Ends a thread that is waiting on go, and frees everything it had.
static void _os_pool_end(os_thread_t *t) {
    t->proc = nullptr;
    os_event_set(t->go);
    os_raw_thread_join(t->handle);
    os_event_destroy(t->go);
    os_event_destroy(t->done);
    mem_free(t);
}

os_thread_t *os_thread_create(os_thread_proc_t proc, void *arg) {
    if (debug_verbose) {
        debug_printf("create thread\n");
    }
    os_thread_t *t;
    {
        os_lock_guard guard(_os_pool_lock_get());
        t = _os_pool_take_parked();
        if (t) {
            os_raw_thread_set_priority(t->handle, OS_PRIORITY_NORMAL);
            os_event_reset(t->done);
            t->proc = proc;
            t->arg = arg;
            os_event_set(t->go);
            return t;
        }
    }
    // Cyan is the log colour of new threads.
    debug_color_printf((int32_t) 0xFF00FFFF, "new thread (%d)\n", _os_thread_serial.fetch_add(1) + 1);
    t = (os_thread_t *) mem_alloc(sizeof(os_thread_t));
    t->next = nullptr;
    t->prev = nullptr;
    t->proc = proc;
    t->arg = arg;
    t->go = os_event_create(false);
    t->done = os_event_create(false);
    t->handle = os_raw_thread_start(_os_pool_thread_proc, t);
    if (!t->handle) {
        debug_fatal(__FILE__, __LINE__, "os_thread_create", "failed to start a thread, error %u",
                    os_last_error());
    }
    return t;
}

void os_thread_destroy(os_thread_t *t) {
    if (!t) {
        return;
    }
    os_event_wait(t->done, OS_INFINITE);
    if (reuse_threads) {
        os_lock_guard guard(_os_pool_lock_get());
        _os_pool_park(t);
        return;
    }
    _os_pool_end(t);
}

void os_thread_set_priority(os_thread_t *t, int priority) {
    if (t) {
        os_raw_thread_set_priority(t->handle, priority);
    }
}

void os_thread_pool_kill() {
    for (;;) {
        os_thread_t *t;
        {
            os_lock_guard guard(_os_pool_lock_get());
            t = _os_pool_take_parked();
        }
        if (!t) {
            break;
        }
        // Joined outside the lock: a thread that is ending never takes the pool lock, but a concurrent
        // os_thread_create must not wait for a join.
        _os_pool_end(t);
    }
}

int os_thread_pool_parked_count() {
    os_lock_guard guard(_os_pool_lock_get());
    return _os_parked_count;
}
