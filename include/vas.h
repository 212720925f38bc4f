/*
 * vas.h - the library's assertion handler and the checks that call it.
 *
 * Every broken invariant in libkob ends in VAS_Fail, which the program that
 * links the library supplies: the library only declares it.  The shared
 * libkob.so and libkobec.so leave it undefined; an executable that defines
 * it and links them gets it exported by the linker without -rdynamic, and
 * the dynamic linker binds the libraries' calls to it.  The check macros
 * below pass the expression text explicitly where the preprocessor could not
 * reproduce it (NULL, named constants), so messages stay byte for byte stable.
 */
#ifndef KOB_VAS_H
#define KOB_VAS_H

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Report a failed check and abort.  Prints
 * "assert fail! <func> <file>:<line> <cond> <kind>\n" on standard output.
 * Supplied by each program (kobdiag, the test programs), never by libkob.
 */
void VAS_Fail(const char *func, const char *file, int line, const char *cond, int kind)
    __attribute__((__noreturn__));

/*
 * Start-up of the assertion module: creates the module's scratch buffer and
 * its "vas" test log.  Failures print "[ERROR] ..." lines and return.
 * Supplied by the program beside VAS_Fail.
 */
void VAS_Init(void);

#ifdef __cplusplus
}
#endif

#define VAS_STR_(x) #x
#define VAS_XSTR(x) VAS_STR_(x)

/* A condition with its message text; the line may be pinned with _LINE. */
#define VAS_CHECK_LINE(cond, text, line)                                                           \
    do {                                                                                           \
        if (__builtin_expect(!(cond), 0))                                                          \
            VAS_Fail(__func__, __FILE__, (line), (text), 0);                                       \
    } while (0)
#define VAS_CHECK(cond, text) VAS_CHECK_LINE(cond, text, __LINE__)

/* A condition reported as written. */
#define VAS_ASSERT(cond) VAS_CHECK(cond, #cond)

/* Non-null and zero results: "(x) != 0", "(x) == 0". */
#define VAS_NOTNULL(x) VAS_CHECK((x) != 0, "(" #x ") != 0")
#define VAS_ZERO(x) VAS_CHECK((x) == 0, "(" #x ") == 0")

/* A record pointer with its magic: "(p) != NULL", "(p)->magic == <value>". */
#define VAS_OBJ_NOTNULL(p, magicval)                                                               \
    do {                                                                                           \
        VAS_CHECK((p) != 0, "(" #p ") != NULL");                                                   \
        VAS_CHECK((p)->magic == (magicval), "(" #p ")->magic == " VAS_XSTR(magicval));             \
    } while (0)

/* A path that must not run. */
#define VAS_WRONG() VAS_Fail(__func__, __FILE__, __LINE__, "0 == 1", 0)

#endif
