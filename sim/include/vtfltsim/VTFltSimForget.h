/*
 * VTFltSimForget.h - a driver that lies: losses of tracking that nobody is told of
 *
 * What VTFltSim.h can let go wrong is noticed, by the driver or by the library. This is not: nothing but a comparison
 * of contents finds it. Conventions as in VTFltSim.h.
 */
#ifndef VTFLTSIM_VTFLTSIMFORGET_H
#define VTFLTSIM_VTFLTSIMFORGET_H

#include "VTFltSim.h"

#ifdef __cplusplus
extern "C" {
#endif

#define VTFLTSIM_FORGET_ALL 0xFFFFFFFFu

/* The driver overlooks the next writes to a volume, whoever makes them: the contents change, snapshots keep what they
   had, no change bit is set, and no list names the volume. count: how many writes, VTFLTSIM_FORGET_ALL for all until
   this is called again; 0 ends it. */
VTFLTSIM_API DWORD WINAPI VTFltSimForgetWrites(VTFLTSIM_MACHINE machine, LPCWSTR volume, DWORD count);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* VTFLTSIM_VTFLTSIMFORGET_H */
