// The lock registry: guarded locks with owners, counters, traces and one
// process-wide list.

#include "lck.h"

#include <cstdio>
#include <cstdlib>

#include "platform_assert.h"

// The registry reports broken rules through the platform's own assertion.
#define LCK_CHECK(cond, text) KOB_PLATFORM_CHECK(cond, text)

// Every call on an existing lock starts with these two.
#define LCK_CHECK_OBJ(ilck)                                                                        \
    do {                                                                                           \
        LCK_CHECK((ilck) != nullptr, "(ilck) != NULL");                                            \
        LCK_CHECK((ilck)->magic == LCK_MAGIC, "((ilck))->magic == (0x7b86c8a5)");                  \
    } while (0)

struct lck_rec {
    uint32_t magic;
    ODR_pthread_mutex_t mtx;
    uint32_t held;   // guarded by mtx, like owner
    pthread_t owner; // zero while free; kept across a condition wait
    struct {
        lck_rec *next;
        lck_rec **prev; // the link that points at this record
    } list;
    const char *name;
    lck_stat *stat;
};

uint32_t lck_diag_mask = 0;

namespace {

ODR_pthread_mutex_t lck_mtx;

// A tail queue: first record, and the link a new record is hung on.
struct {
    lck_rec *first;
    lck_rec **last;
} lck_list = {nullptr, &lck_list.first};

bool tracing() {
    return (lck_diag_mask & LCK_DIAG_TRACE) != 0;
}

void listAppend(lck_rec *il) {
    il->list.next = nullptr;
    il->list.prev = lck_list.last;
    *lck_list.last = il;
    lck_list.last = &il->list.next;
}

void listRemove(lck_rec *il) {
    if (il->list.next != nullptr)
        il->list.next->list.prev = il->list.prev;
    else
        lck_list.last = il->list.prev;
    *il->list.prev = il->list.next;
}

// Trace lines are rare; out of line they keep the untraced paths short.
[[gnu::noinline, gnu::cold]] void trace(const char *what, const char *func, const char *file,
                                        int line, const char *name) {
    printf("%s(%s,%s,%d,%s)", what, func, file, line, name);
}

} // namespace

extern "C" {

void LCK_Init(void) {
    int r = ODR_pthread_mutex_init(&lck_mtx, nullptr);
    LCK_CHECK(r == 0, "(ODR_pthread_mutex_init(&lck_mtx, ((void *)0))) == 0");
}

void Lck__New(lock *lck, lck_stat *st, const char *name) {
    LCK_CHECK(st != nullptr, "(st) != 0");
    LCK_CHECK(lck->priv == nullptr, "(lck->priv) == 0");
    auto ilck = static_cast<lck_rec *>(calloc(1, sizeof(lck_rec)));
    LCK_CHECK(ilck != nullptr, "(ilck) != 0");
    ilck->magic = LCK_MAGIC;
    ilck->name = name;
    ilck->stat = st;
    st->n_new++;
    int r = ODR_pthread_mutex_init(&ilck->mtx, nullptr);
    LCK_CHECK(r == 0, "(ODR_pthread_mutex_init(&ilck->mtx, ((void *)0))) == 0");
    r = ODR_pthread_mutex_lock(&lck_mtx);
    LCK_CHECK(r == 0, "(ODR_pthread_mutex_lock(&lck_mtx)) == 0");
    listAppend(ilck);
    r = ODR_pthread_mutex_unlock(&lck_mtx);
    LCK_CHECK(r == 0, "(ODR_pthread_mutex_unlock(&lck_mtx)) == 0");
    lck->priv = ilck;
}

void LCK_Delete(lock *lck) {
    lck_rec *ilck = lck->priv;
    LCK_CHECK_OBJ(ilck);
    ilck->stat->n_delete++;
    lck->priv = nullptr;
    int r = ODR_pthread_mutex_lock(&lck_mtx);
    LCK_CHECK(r == 0, "(ODR_pthread_mutex_lock(&lck_mtx)) == 0");
    listRemove(ilck);
    r = ODR_pthread_mutex_unlock(&lck_mtx);
    LCK_CHECK(r == 0, "(ODR_pthread_mutex_unlock(&lck_mtx)) == 0");
    r = ODR_pthread_mutex_destroy(&ilck->mtx);
    LCK_CHECK(r == 0, "(ODR_pthread_mutex_destroy(&ilck->mtx)) == 0");
    ilck->magic = 0;
    free(ilck);
}

void Lck__Lock(lock *lck, const char *func, const char *file, int line) {
    lck_rec *ilck = lck->priv;
    LCK_CHECK_OBJ(ilck);
    int r;
    if (__builtin_expect(!tracing(), 1)) {
        r = ODR_pthread_mutex_lock(&ilck->mtx);
        LCK_CHECK(r == 0, "(ODR_pthread_mutex_lock(&ilck->mtx)) == 0");
    } else {
        // A try first, so that an acquisition that had to wait is told apart.
        r = ODR_pthread_mutex_trylock(&ilck->mtx);
        LCK_CHECK(r == 0 || r == ODR_EBUSY, "r == 0 || r == ODR_EBUSY");
        if (r != 0) {
            // Only the contest line is printed for an acquisition that waited.
            trace("MTX_CONTEST", func, file, line, ilck->name);
            r = ODR_pthread_mutex_lock(&ilck->mtx);
            LCK_CHECK(r == 0, "(ODR_pthread_mutex_lock(&ilck->mtx)) == 0");
            // Counted once the mutex is ours, so that it is written under it.
            ilck->stat->n_contest++;
        } else {
            trace("MTX_LOCK", func, file, line, ilck->name);
        }
    }
    LCK_CHECK(ilck->held == 0, "(ilck->held) == 0");
    ilck->stat->n_lock++;
    ilck->owner = ODR_pthread_self();
    ilck->held = 1;
}

void Lck__Unlock(lock *lck, const char *func, const char *file, int line) {
    lck_rec *ilck = lck->priv;
    LCK_CHECK_OBJ(ilck);
    LCK_CHECK(ODR_pthread_equal(ilck->owner, ODR_pthread_self()),
              "ODR_pthread_equal(ilck->owner, ODR_pthread_self())");
    LCK_CHECK(ilck->held != 0, "(ilck->held) != 0");
    // The bookkeeping is cleared while the mutex still guards it.
    ilck->held = 0;
    ilck->owner = pthread_t{};
    int r = ODR_pthread_mutex_unlock(&ilck->mtx);
    LCK_CHECK(r == 0, "(ODR_pthread_mutex_unlock(&ilck->mtx)) == 0");
    if (__builtin_expect(tracing(), 0))
        trace("MTX_UNLOCK", func, file, line, ilck->name);
}

int Lck__Trylock(lock *lck, const char *func, const char *file, int line) {
    lck_rec *ilck = lck->priv;
    LCK_CHECK_OBJ(ilck);
    int r = ODR_pthread_mutex_trylock(&ilck->mtx);
    LCK_CHECK(r == 0 || r == ODR_EBUSY, "r == 0 || r == ODR_EBUSY");
    if (tracing())
        printf("MTX_TRYLOCK(%s,%s,%d,%s) = %d", func, file, line, ilck->name, r);
    // A failed try is not contention: nobody waited.
    if (r != 0)
        return r;
    LCK_CHECK(ilck->held == 0, "(ilck->held) == 0");
    ilck->held = 1;
    ilck->stat->n_lock++;
    ilck->owner = ODR_pthread_self();
    return 0;
}

void Lck__Assert(const lock *lck, int held) {
    const lck_rec *ilck = lck->priv;
    LCK_CHECK_OBJ(ilck);
    if (held)
        LCK_CHECK(ilck->held && ODR_pthread_equal(ilck->owner, ODR_pthread_self()),
                  "ilck->held && ODR_pthread_equal(ilck->owner, ODR_pthread_self())");
    else
        LCK_CHECK(!ilck->held || !ODR_pthread_equal(ilck->owner, ODR_pthread_self()),
                  "!ilck->held || !ODR_pthread_equal(ilck->owner, ODR_pthread_self())");
}

int LCK_CondWait(ODR_pthread_cond_t *cond, lock *lck, const struct timespec *when) {
    lck_rec *ilck = lck->priv;
    LCK_CHECK_OBJ(ilck);
    LCK_CHECK(ilck->held != 0, "(ilck->held) != 0");
    LCK_CHECK(ODR_pthread_equal(ilck->owner, ODR_pthread_self()),
              "ODR_pthread_equal(ilck->owner, ODR_pthread_self())");
    // The waiter gives the lock up but stays its recorded owner.
    ilck->held = 0;
    int retval;
    if (when != nullptr) {
        retval = ODR_pthread_cond_timedwait(cond, &ilck->mtx, when);
        LCK_CHECK(retval == 0 || retval == ODR_ETIMEDOUT, "retval == 0 || retval == ODR_ETIMEDOUT");
    } else {
        retval = ODR_pthread_cond_wait(cond, &ilck->mtx);
        LCK_CHECK(retval == 0, "(ODR_pthread_cond_wait(cond, &ilck->mtx)) == 0");
    }
    LCK_CHECK(ilck->held == 0, "(ilck->held) == 0");
    ilck->held = 1;
    ilck->owner = ODR_pthread_self();
    return retval;
}

} // extern "C"
