// The event queue: the one road from any thread to the main thread.
#include <atomic>

#include "debug/debug.h"
#include "main/main.h"
#include "mem/mem.h"
#include "os/os.h"
#include "os/os_main.h"

struct event_t {
    event_t *next;
    event_t *prev;
    void (*callback)(void *);
    void *context;
};

struct event_queue_t {
    os_lock_t lock;
    event_t *head;
    event_t *tail;
    int count;
    event_queue_t() : head(nullptr), tail(nullptr), count(0) { os_lock_init(&lock); }
};

static std::atomic<uint32_t> wake_count{0};

// Made on first use, so that a module's test may post without running the whole start. The lock lives
// until the process ends: a thread that posts late must never find it deleted.
static event_queue_t *_event_queue() {
    static event_queue_t queue;
    return &queue;
}

void event_init() {
    _event_queue();
}

void event_kill() {
    event_queue_t *q = _event_queue();
    os_lock_enter(&q->lock);
    event_t *e = q->head;
    q->head = q->tail = nullptr;
    q->count = 0;
    os_lock_leave(&q->lock);
    debug_printf("event start %p\n", (void *) e);
    while (e) {
        event_t *next = e->next;
        debug_printf("event %p %p\n", (void *) e->callback, e->context);
        mem_free(e);
        e = next;
    }
}

void event_post(void (*callback)(void *), void *context) {
    event_t *e = (event_t *) mem_alloc(sizeof(event_t));
    e->next = nullptr;
    e->callback = callback;
    e->context = context;
    event_queue_t *q = _event_queue();
    os_lock_enter(&q->lock);
    bool was_empty = q->head == nullptr;
    e->prev = q->tail;
    if (q->tail) {
        q->tail->next = e;
    } else {
        q->head = e;
    }
    q->tail = e;
    q->count++;
    os_lock_leave(&q->lock);
    // Only the first event of a burst wakes the loop; the dispatch then drains the whole queue.
    if (was_empty) {
        wake_count.fetch_add(1);
        os_main_wake();
    }
}

static void _event_unlink(event_queue_t *q, event_t *e) {
    if (e->prev) {
        e->prev->next = e->next;
    } else {
        q->head = e->next;
    }
    if (e->next) {
        e->next->prev = e->prev;
    } else {
        q->tail = e->prev;
    }
    q->count--;
}

void event_remove(void (*callback)(void *), void *context) {
    event_queue_t *q = _event_queue();
    event_t *removed = nullptr;
    os_lock_enter(&q->lock);
    for (event_t *e = q->head; e;) {
        event_t *next = e->next;
        if (e->callback == callback && e->context == context) {
            _event_unlink(q, e);
            e->next = removed;
            removed = e;
        }
        e = next;
    }
    os_lock_leave(&q->lock);
    // Freed outside the lock: the lock guards the queue's pointers and nothing else.
    while (removed) {
        event_t *next = removed->next;
        mem_free(removed);
        removed = next;
    }
}

int event_dispatch() {
    event_queue_t *q = _event_queue();
    int ran = 0;
    os_lock_enter(&q->lock);
    while (q->head) {
        event_t *e = q->head;
        _event_unlink(q, e);
        os_lock_leave(&q->lock);
        if (debug_verbose) {
            debug_color_printf((int32_t) 0xFF00FF00, "EVENT: %p %p\n", (void *) e->callback, e->context);
        }
        e->callback(e->context);
        mem_free(e);
        ran++;
        os_lock_enter(&q->lock);
    }
    os_lock_leave(&q->lock);
    return ran;
}

int event_dispatch_for(void *context) {
    event_queue_t *q = _event_queue();
    int ran = 0;
    for (;;) {
        // From the head each time: a callback may have removed or posted events meanwhile.
        os_lock_enter(&q->lock);
        event_t *e = q->head;
        while (e && e->context != context) {
            e = e->next;
        }
        if (e) {
            _event_unlink(q, e);
        }
        os_lock_leave(&q->lock);
        if (!e) {
            return ran;
        }
        if (debug_verbose) {
            debug_color_printf((int32_t) 0xFF00FF00, "EVENT: %p %p\n", (void *) e->callback, e->context);
        }
        e->callback(e->context);
        mem_free(e);
        ran++;
    }
}

uint32_t event_wake_count() {
    return wake_count.load();
}

int event_pending_count() {
    event_queue_t *q = _event_queue();
    os_lock_guard guard(&q->lock);
    return q->count;
}
