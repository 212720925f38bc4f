/*
 * vin.h - instance names of the daemons' shared segment files.
 *
 * A reader is given an instance name; VIN_N_Arg turns it into the bare file
 * name of the daemon's segment, opened relative to the reader's current
 * directory.  There are three instances: ".kobvane.vsm", ".kobflow.vsm" and
 * ".kobrun.vsm".
 */
#ifndef KOB_VIN_H
#define KOB_VIN_H

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Store in *vsl a new copy of the known file name that n_arg begins with
 * (n_arg may go on after it); the caller frees it.  name and dir must be
 * null, vsl and n_arg must not be.  Returns 0.  Trap: an unknown name (the
 * empty one too) is not an error result: it prints "n_arg <name>" on
 * standard error and ends the process through the assertion "0 == 1".
 */
int VIN_N_Arg(const char *n_arg, char **name, char **dir, char **vsl);

#ifdef __cplusplus
}
#endif

#endif
