/*
 * vav.h - argument vectors from command-like text, and backslash escapes.
 *
 * An argument vector is a NULL-terminated array of texts whose element 0 is
 * the error slot: NULL after a successful parse, else one of the static texts
 * below.  The arguments proper start at element 1.
 *
 * Escapes: \" \\ \n \r \t, \ with up to three octal digits (values above 255
 * wrap in the byte), and \x with one or two hexadecimal digits, which always
 * occupies four characters, so the character after a single hex digit is
 * swallowed.
 */
#ifndef KOB_VAV_H
#define KOB_VAV_H

#ifdef __cplusplus
extern "C" {
#endif

/* Parse flags. */
#define VAV_F_COMMENT 1 /* a "#" at the start of an argument ends the parse */
#define VAV_F_COMMA 2   /* outside quotes, a comma separates like white space */
#define VAV_F_RAW 4     /* no escapes and no quoting: copy arguments as they stand */

/* The error texts of element 0. */
#define VAV_ERR_BACKSLASH "Invalid backslash sequence"
#define VAV_ERR_QUOTE "Missing '\"'"

/*
 * Decode the one escape at s, which must start with a backslash (asserted).
 * Stores the byte through res unless res is NULL.  Returns the characters the
 * escape occupies, or 0 for an invalid escape (the stored byte is then 0).
 * Trap: \x with one digit reports 4 even when the text ends after the digit.
 */
int VAV_BackSlash(const char *s, char *res);

/*
 * A new text holding s up to e (or to its end when e is NULL) with every
 * escape decoded; NULL when memory is short.  The caller frees it.  Give it
 * only valid escapes: decoding stops at an invalid one.
 */
char *VAV_BackSlashDecode(const char *s, const char *e);

/*
 * Split s (not NULL, asserted) into a new argument vector; NULL when the
 * first allocation fails.  On success *argc (when argc is not NULL) is the
 * number of arguments plus one.  A syntax error sets element 0 and returns
 * the arguments parsed so far, without writing *argc.  Free the vector with
 * VAV_FreeArgv.
 */
char **VAV_Parse(const char *s, int *argc, int flag);

/* Free the arguments and the vector; element 0 is never freed. */
void VAV_FreeArgv(char **argv);

#ifdef __cplusplus
}
#endif

#endif
