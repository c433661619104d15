/*
 * Definitions shared by every public header of the library.
 *
 * Result convention: 0 is success; most functions return TOVI_ERR (all ones
 * in 32 bits) on failure, the data structures negated errno values.
 */
#ifndef TOVI_BASE_H
#define TOVI_BASE_H

#include <stdint.h>

#ifdef __cplusplus
#define TOVI_EXTERN_C_BEGIN extern "C" {
#define TOVI_EXTERN_C_END }
#else
#define TOVI_EXTERN_C_BEGIN
#define TOVI_EXTERN_C_END
#endif

/* Marks a function or object as part of the library's interface. */
#define TOVI_API __attribute__((visibility("default")))

#define TOVI_OK 0u
#define TOVI_ERR 0xFFFFFFFFu

/* The library's own module number, for logging and the private system call. */
#define TOVI_MODULE_ID 381u

/* Node of the library's intrusive doubly linked lists; a list head is a
 * node whose links point at itself when the list is empty. */
typedef struct tovi_list_head_s {
    struct tovi_list_head_s *next;
    struct tovi_list_head_s *prev;
} tovi_list_head_s;

/* Jiffies per second. */
#define TOVI_HZ 250u

#endif
