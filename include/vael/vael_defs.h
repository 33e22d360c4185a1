/*
 * vael_defs.h - result words shared by every module: 0 for success, -1
 * (VAEL_ERROR) for failure; creators give a null pointer instead.
 */
#ifndef VAEL_DEFS_H
#define VAEL_DEFS_H

#define VAEL_OK 0
#define VAEL_ERROR (-1)

#endif /* VAEL_DEFS_H */
