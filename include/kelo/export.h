/* Export marker for the public interface of libkelo_util. */
#ifndef KELO_EXPORT_H
#define KELO_EXPORT_H

#define KELO_EXPORT __attribute__((visibility("default")))

#ifdef __cplusplus
#define KELO_BEGIN_DECLS extern "C" {
#define KELO_END_DECLS   }
#else
#define KELO_BEGIN_DECLS
#define KELO_END_DECLS
#endif

#endif
