/*
 * odr_pthread.h - thread, mutex, mutex-attribute and condition wrappers.
 *
 * Each object is a caller-held pointer to a one-word cell that points to a
 * record beginning with a magic number, which every call (creators aside)
 * checks first.  Results are the platform's codes, except ODR_ETIMEDOUT from
 * the timed wait.  Threads and condition variables are never freed.
 */
#ifndef KOB_ODR_PTHREAD_H
#define KOB_ODR_PTHREAD_H

#include <pthread.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

#define ODR_ETIMEDOUT 10000
#define ODR_EBUSY 10008

/* Mutex types for ODR_pthread_mutexattr_settype: a bit mask. */
#define ODR_PTHREAD_MUTEX_RECURSIVE 1

#define THREAD_MAGIC 0xf29b2aed
#define MUTEX_MAGIC 0x4ee8f1c0
#define MUTEXATTR_MAGIC 0x11bbb73c
#define COND_MAGIC 0x5dc4ff7a

struct odr_thread;
struct odr_mutex;
struct odr_mutexattr;
struct odr_cond;

typedef struct odr_thread **ODR_pthread_t;
typedef struct odr_mutex **ODR_pthread_mutex_t;
typedef struct odr_mutexattr **ODR_pthread_mutexattr_t;
typedef struct odr_cond **ODR_pthread_cond_t;

/* Start a thread; attr must be NULL.  Returns 0; failures are assertions. */
int ODR_pthread_create(ODR_pthread_t *thread, const void *attr, void *(*start_routine)(void *),
                       void *arg);
int ODR_pthread_detach(ODR_pthread_t thread);
int ODR_pthread_join(ODR_pthread_t thread, void **value);
/* The platform id of the calling thread (not a wrapper). */
pthread_t ODR_pthread_self(void);
int ODR_pthread_equal(pthread_t t1, pthread_t t2);

/* Create a mutex, with default attributes when attr is NULL.  Returns 0. */
int ODR_pthread_mutex_init(ODR_pthread_mutex_t *mutex, const ODR_pthread_mutexattr_t *attr);
int ODR_pthread_mutex_lock(ODR_pthread_mutex_t *mutex);
int ODR_pthread_mutex_unlock(ODR_pthread_mutex_t *mutex);
/* Trap: a busy mutex gives the platform's EBUSY, not ODR_EBUSY. */
int ODR_pthread_mutex_trylock(ODR_pthread_mutex_t *mutex);
/* Destroy and free; *mutex becomes NULL.  Returns 0. */
int ODR_pthread_mutex_destroy(ODR_pthread_mutex_t *mutex);

int ODR_pthread_mutexattr_init(ODR_pthread_mutexattr_t *attr);
/* Only ODR_PTHREAD_MUTEX_RECURSIVE can be set; anything else is an assertion. */
int ODR_pthread_mutexattr_settype(ODR_pthread_mutexattr_t *attr, int type);
int ODR_pthread_mutexattr_destroy(ODR_pthread_mutexattr_t *attr);

/* Create a condition variable; attr must be NULL.  Returns 0. */
int ODR_pthread_cond_init(ODR_pthread_cond_t *cond, const void *attr);
int ODR_pthread_cond_wait(ODR_pthread_cond_t *cond, ODR_pthread_mutex_t *mutex);
/*
 * Wait until the absolute wall-clock deadline.  0, or ODR_ETIMEDOUT when the
 * deadline passed; any other platform result is an assertion.
 */
int ODR_pthread_cond_timedwait(ODR_pthread_cond_t *cond, ODR_pthread_mutex_t *mutex,
                               const struct timespec *abstime);
int ODR_pthread_cond_signal(ODR_pthread_cond_t *cond);

#ifdef __cplusplus
}
#endif

#endif
