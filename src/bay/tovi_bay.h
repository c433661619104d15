/**
 * @file
 * The enclosure's bay (disk slot) description, read from an XML file into
 * caller-owned records.
 *
 * The file (default TOVI_BAY_CONFIG_PATH; every reader takes another path):
 *
 * @verbatim
 *   <?xml version="1.0" encoding="UTF-8"?>
 *   <bays version="1">
 *     <bay slot="0" type="sas" location="front, row 1, column 1"/>
 *     <bay slot="1" type="nvme" location="front, row 1, column 2" enabled="no"/>
 *   </bays>
 * @endverbatim
 *
 * One root element "bays" with version "1"; inside it only "bay" elements
 * (text and comments between them are ignored). A bay has exactly these
 * attributes: slot (required, decimal 0 ... TOVI_BAY_SLOT_MAX, each slot
 * once), type (required: "sas", "sata" or "nvme"), location (optional, at
 * most TOVI_BAY_LOCATION_LEN - 1 bytes, default empty) and enabled
 * (optional, "yes" or "no", default "yes"). Anything else makes the file
 * malformed: nothing is half-read.
 *
 * Results (negated errno family): 0 success; -22 a NULL argument or a
 * malformed file; -2 no such file; -5 not a readable regular file of at
 * most 1 MiB; -7 more bays than `max` (`*count` still says how many);
 * -12 no memory. Every failure is logged at level 3 as
 * "bay: <path>: <reason>.", for a bay "bay: <path>: bay <n>: <reason>."
 * (n counts from 1 in file order).
 */
#ifndef TOVI_BAY_H
#define TOVI_BAY_H

#include "tovi_base.h"

TOVI_EXTERN_C_BEGIN

/** Where the platform keeps the bay description. */
#define TOVI_BAY_CONFIG_PATH "/ZSR/conf/bay_config.xml"
/** Room for a location text and its terminating NUL. */
#define TOVI_BAY_LOCATION_LEN 64
/** The highest slot number. */
#define TOVI_BAY_SLOT_MAX 1023u

/** Kinds of bay. */
typedef enum tovi_bay_type_e {
    TOVI_BAY_SAS = 1,
    TOVI_BAY_SATA = 2,
    TOVI_BAY_NVME = 3,
} tovi_bay_type_e;

/** One bay as the file describes it. */
typedef struct tovi_bay_s {
    uint32_t slot;    /**< slot number, 0 ... TOVI_BAY_SLOT_MAX */
    uint32_t type;    /**< a tovi_bay_type_e */
    uint32_t enabled; /**< 1 or 0 */
    char location[TOVI_BAY_LOCATION_LEN]; /**< NUL-terminated, empty when not given */
} tovi_bay_s;

/** Reads the bays of `path` (NULL: TOVI_BAY_CONFIG_PATH) in file order into
 * `bays` (room for `max`) and their number into `*count`. */
TOVI_API int tovi_bay_read(const char *path, tovi_bay_s *bays, uint32_t max, uint32_t *count);

/** The name of a bay type ("sas", "sata", "nvme"), or "unknown". */
TOVI_API const char *tovi_bay_type_name(uint32_t type);

TOVI_EXTERN_C_END

#endif
