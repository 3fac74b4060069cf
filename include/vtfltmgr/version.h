/*
 * The version of VTFltMgr, by semantic versioning: the one place that names it. The DLL's version resource, the tools and
 * the package take it from here.
 */
#ifndef VTFLTMGR_VERSION_H
#define VTFLTMGR_VERSION_H

#define VTFLTMGR_VERSION_MAJOR 0
#define VTFLTMGR_VERSION_MINOR 1
#define VTFLTMGR_VERSION_PATCH 0
#define VTFLTMGR_VERSION "0.1.0"

#endif /* VTFLTMGR_VERSION_H */
