/* libkelo_util: every public header. */
#ifndef KELO_KELO_H
#define KELO_KELO_H

#include <kelo/app.h>
#include <kelo/av.h>
#include <kelo/devinfo.h>
#include <kelo/encoding.h>
#include <kelo/file.h>
#include <kelo/log.h>
#include <kelo/md5.h>
#include <kelo/mem.h>
#include <kelo/net.h>
#include <kelo/osd.h>
#include <kelo/otrpc.h>
#include <kelo/rand.h>
#include <kelo/time.h>

#endif
