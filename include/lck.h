/*
 * lck.h - the lock registry: guarded, counted, traceable locks.
 *
 * Each lock knows whether it is held and by which thread, counts its
 * acquisitions in a statistics record shared by its class, and sits in one
 * process-wide list.  Ownership errors (unlocking a lock held by another
 * thread, asserting a state that does not hold) end the process through the
 * platform's standard assertion, whose message goes to standard error.
 *
 * Tracing: while bit 3 (LCK_DIAG_TRACE) of lck_diag_mask is set, lock,
 * unlock and try print one trace each to standard output, with no line
 * ending, so consecutive traces run together.
 *
 * Trap: the mutex wrapper passes the platform's busy code through, while the
 * registry accepts only 0 or ODR_EBUSY from a try.  So a try on a busy lock,
 * and a lock on a busy lock while tracing is on, end in the assertion
 * "r == 0 || r == ODR_EBUSY" on this platform.
 */
#ifndef KOB_LCK_H
#define KOB_LCK_H

#include <stdint.h>
#include <time.h>

#include "odr_pthread.h"

#ifdef __cplusplus
extern "C" {
#endif

#define LCK_MAGIC 0x7b86c8a5

/* Bit of lck_diag_mask that turns tracing on. */
#define LCK_DIAG_TRACE 8u

/*
 * Diagnostics bit mask, zero at start.  The library only reads it; the
 * embedding program sets it, before it starts threads that take locks.
 */
extern uint32_t lck_diag_mask;

/* Counters of one class of locks, owned by the caller.  Not synchronised. */
struct lck_stat {
    uint32_t n_new;     /* locks created */
    uint32_t n_delete;  /* locks deleted */
    uint32_t n_lock;    /* acquisitions, by lock or successful try */
    uint32_t n_contest; /* acquisitions that found the mutex busy (tracing on) */
};

struct lck_rec;

/* The user's lock: priv is the registry's record, NULL while none exists. */
struct lock {
    struct lck_rec *priv;
};

/* Create the registry's own mutex.  Call once, before the first Lck_New. */
void LCK_Init(void);

/*
 * Create the record of lck, counted in st (must not be NULL), named name
 * (printed in traces; not copied, so it must outlive the lock).  lck->priv
 * must be NULL.  The record joins the process-wide list.
 */
void Lck__New(struct lock *lck, struct lck_stat *st, const char *name);

/*
 * Remove lck from the list, destroy and free its record; lck->priv becomes
 * NULL.  Trap: does not check that the lock is free.
 */
void LCK_Delete(struct lock *lck);

/*
 * Acquire lck, blocking.  func, file and line name the call site for traces.
 * Trap: a second lock by the holder deadlocks; the mutex is not recursive.
 */
void Lck__Lock(struct lock *lck, const char *func, const char *file, int line);

/* Release lck; the caller must be the holder. */
void Lck__Unlock(struct lock *lck, const char *func, const char *file, int line);

/* Acquire lck without blocking: 0 when acquired, else the code of the try. */
int Lck__Trylock(struct lock *lck, const char *func, const char *file, int line);

/* held non-zero: assert the caller holds lck; zero: assert it does not. */
void Lck__Assert(const struct lock *lck, int held);

/*
 * Wait on cond with lck held by the caller, which holds it again on return.
 * when: an absolute wall-clock deadline, or NULL to wait without limit.
 * Returns 0, or ODR_ETIMEDOUT when the deadline passed.
 */
int LCK_CondWait(ODR_pthread_cond_t *cond, struct lock *lck, const struct timespec *when);

/* Call-site forms: the function, file and line of the caller go into traces. */
#define Lck_New(lck, st, name) Lck__New((lck), (st), (name))
#define Lck_Lock(lck) Lck__Lock((lck), __func__, __FILE__, __LINE__)
#define Lck_Unlock(lck) Lck__Unlock((lck), __func__, __FILE__, __LINE__)
#define Lck_Trylock(lck) Lck__Trylock((lck), __func__, __FILE__, __LINE__)
#define Lck_AssertHeld(lck) Lck__Assert((lck), 1)
#define Lck_AssertNotHeld(lck) Lck__Assert((lck), 0)

#ifdef __cplusplus
}
#endif

#endif
