/*
 * libkob.h - every public header of libkob and libkobec.
 */
#ifndef KOB_LIBKOB_H
#define KOB_LIBKOB_H

#include "errorcode.h"
#include "lck.h"
#include "odr.h"
#include "odr_pthread.h"
#include "vas.h"
#include "vav.h"
#include "vbm.h"
#include "vin.h"
#include "vnum.h"
#include "vpf.h"
#include "vsb.h"
#include "vsc.h"
#include "vsl.h"
#include "vsm.h"
#include "vss.h"
#include "vtc_log.h"
#include "vtcp.h"
#include "vtim.h"

#endif
