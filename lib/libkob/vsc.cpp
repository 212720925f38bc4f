// The interface counters of a daemon's segment, as a list of points.

#include "vsc.h"

#include <cstdlib>
#include <cstring>

#include "vas.h"
#include "vsc_priv.h"

namespace {

bool classIsStat(const VSM_chunk *c) {
    return strnlen(c->class_, sizeof c->class_) < sizeof c->class_ &&
           strcmp(c->class_, "Stat") == 0;
}

// A chunk shorter than the thirty counters would have us read past it.
bool holdsCounters(const VSM_fantom *vf) {
    return static_cast<size_t>(static_cast<char *>(vf->end) - static_cast<char *>(vf->start)) >=
           sizeof(VSC_C_main);
}

vsc *vsc_setup(VSM_data *vd) {
    VAS_OBJ_NOTNULL(vd, VSM_MAGIC);
    if (vd->vsc == nullptr) {
        vd->vsc = static_cast<vsc *>(calloc(1, sizeof(vsc)));
        if (vd->vsc != nullptr) {
            vd->vsc->magic = VSC_MAGIC;
            TAILQ_INIT(&vd->vsc->pt_list);
            TAILQ_INIT(&vd->vsc->sf_list);
        }
    }
    VAS_OBJ_NOTNULL(vd->vsc, VSC_MAGIC);
    return vd->vsc;
}

void vsc_delete_pts(vsc *vsc) {
    while (vsc_pt *pt = TAILQ_FIRST(&vsc->pt_list)) {
        TAILQ_REMOVE(&vsc->pt_list, pt, list);
        pt->magic = 0;
        free(pt);
    }
}

void vsc_build_pt_list(VSM_data *vd, vsc *vsc) {
    vsc_delete_pts(vsc);
    VSM_fantom vf;
    VSM_FOREACH(&vf, vd) {
        if (classIsStat(vf.chunk) && vf.chunk->type[0] == '\0' && holdsCounters(&vf))
            iter_main(vsc, &vf);
    }
}

bool patternMatches(const char *pattern, bool prefix, const char *s) {
    if (pattern == nullptr)
        return true;
    if (prefix)
        return strncmp(s, pattern, strlen(pattern)) == 0;
    return strcmp(s, pattern) == 0;
}

bool filterMatches(const vsc_sf *sf, const vsc_pt *pt) {
    return patternMatches(sf->class_, sf->flags & VSC_SF_CLASS_PREFIX, pt->point.class_) &&
           patternMatches(sf->ident, sf->flags & VSC_SF_IDENT_PREFIX, pt->point.ident) &&
           patternMatches(sf->name, sf->flags & VSC_SF_NAME_PREFIX, pt->point.desc->name);
}

void vsc_filter_pt_list(vsc *vsc) {
    if (TAILQ_EMPTY(&vsc->sf_list))
        return;
    vsc_pt_head kept;
    TAILQ_INIT(&kept);
    vsc_sf *sf;
    TAILQ_FOREACH(sf, &vsc->sf_list, list) {
        vsc_pt *pt, *next;
        for (pt = TAILQ_FIRST(&vsc->pt_list); pt != nullptr; pt = next) {
            next = TAILQ_NEXT(pt, list);
            if (!filterMatches(sf, pt))
                continue;
            TAILQ_REMOVE(&vsc->pt_list, pt, list);
            if (sf->flags & VSC_SF_EXCL) {
                pt->magic = 0;
                free(pt);
            } else {
                TAILQ_INSERT_TAIL(&kept, pt, list);
            }
        }
    }
    vsc_delete_pts(vsc);
    TAILQ_CONCAT(&vsc->pt_list, &kept, list);
}

} // namespace

void vsc_add_pt(struct vsc *vsc, const char *ident, const struct VSC_desc *desc,
                const volatile uint64_t *ptr, const struct VSM_fantom *vf) {
    auto *pt = static_cast<vsc_pt *>(calloc(1, sizeof(vsc_pt)));
    VAS_NOTNULL(pt);
    pt->magic = VSC_PT_MAGIC;
    pt->vf = *vf;
    pt->point.class_ = "";
    pt->point.ident = ident;
    pt->point.desc = desc;
    pt->point.ptr = ptr;
    pt->point.vf = &pt->vf;
    TAILQ_INSERT_TAIL(&vsc->pt_list, pt, list);
}

extern "C" {

struct VSC_C_main *VSC_Main(struct VSM_data *vd) {
    vsc *vsc = vsc_setup(vd);
    if (vd->head == nullptr && VSM_Open(vd) != 0)
        return nullptr;
    if (!VSM_Get(vd, &vsc->main_vf, "Stat", "", ""))
        return nullptr;
    if (!holdsCounters(&vsc->main_vf))
        return nullptr;
    return static_cast<VSC_C_main *>(vsc->main_vf.start);
}

int VSC_Iter(struct VSM_data *vd, VSC_iter_f *func, void *priv) {
    vsc *vsc = vsc_setup(vd);
    if (VSM_StillValid(vd, &vsc->iter_vf) != 1) {
        if (!VSM_Get(vd, &vsc->iter_vf, "Stat", "", "")) {
            // The daemon may have made a new segment file: look there.
            VSM_Close(vd);
            if (VSM_Open(vd) != 0)
                return -1;
            if (!VSM_Get(vd, &vsc->iter_vf, "Stat", "", ""))
                return -1;
        }
        VAS_NOTNULL(vd->head);
        // Tell the caller that the points it holds are about to go.
        (void)func(priv, nullptr);
        vsc_build_pt_list(vd, vsc);
        vsc_filter_pt_list(vsc);
    }
    VAS_NOTNULL(vd->head);
    vsc_pt *pt;
    TAILQ_FOREACH(pt, &vsc->pt_list, list) {
        int i = func(priv, &pt->point);
        if (i != 0)
            return i;
    }
    return 0;
}

void VSC_Delete(struct VSM_data *vd) {
    VAS_OBJ_NOTNULL(vd, VSM_MAGIC);
    vsc *vsc = vd->vsc;
    vd->vsc = nullptr;
    VAS_OBJ_NOTNULL(vsc, VSC_MAGIC);
    while (vsc_sf *sf = TAILQ_FIRST(&vsc->sf_list)) {
        TAILQ_REMOVE(&vsc->sf_list, sf, list);
        free(sf->class_);
        free(sf->ident);
        free(sf->name);
        sf->magic = 0;
        free(sf);
    }
    vsc_delete_pts(vsc);
    vsc->magic = 0;
    free(vsc);
}

} // extern "C"
