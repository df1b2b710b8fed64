/* libkelo_util: every public header. */
#ifndef KELO_KELO_H
#define KELO_KELO_H

#include <kelo/app.h>
#include <kelo/log.h>
#include <kelo/rand.h>
#include <kelo/devinfo.h>
#include <kelo/otrpc.h>
#include <kelo/av.h>
#include <kelo/osd.h>

#endif
