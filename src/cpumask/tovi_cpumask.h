/**
 * @file
 * CPU masks and CPU lists.
 *
 * A CPU list is a text of items separated by ',': a CPU number n or a range
 * a-b with a <= b ("0-3,8,12-15").
 */
#ifndef TOVI_CPUMASK_H
#define TOVI_CPUMASK_H

#include "tovi_base.h"

TOVI_EXTERN_C_BEGIN

/** ORs the CPUs of a list into a 1024-bit set (sixteen 64-bit words, bit n
 * for CPU n); range ends above 1023 are cut to 1023. A bad item is logged
 * and skipped. 0 when at least one item was applied, -1 otherwise or for
 * NULL. Items naming a partition (group/partition) are not resolved yet:
 * they count as bad items. */
TOVI_API int32_t tovi_cpum_parse_cpumask(const char *list, uint64_t *set);

TOVI_EXTERN_C_END

#endif
