/**
 * @file
 * Calendar, time zones and daylight saving time (DST).
 *
 * Calendar arithmetic on seconds since 1970 needs no zone data. The kernel
 * side keeps the clocks and the zone's offset table; the platform script
 * "/ZSR/script/os_get_tmtz.sh" answers every question about zones and DST
 * rules, run with an action word. Zone changes push the zone's transitions
 * to the kernel side (ioctl 902 on "/proc/kar/timezone").
 *
 * Results: 0 success, -1 failure, -22 a NULL required argument, -2 a zone
 * file missing, -7 a command too long. Nothing here locks: callers
 * serialise zone changes; the globals are shared unprotected.
 */
#ifndef TOVI_TIMEZONE_H
#define TOVI_TIMEZONE_H

#include <time.h>

#include "tovi_base.h"

TOVI_EXTERN_C_BEGIN

/** A zone as the configuration lines describe it. */
typedef struct tovi_tz_info_s {
    int32_t utcOffHours; /**< "UTCOffHours=" */
    int32_t utcOffMins;  /**< "UTCOffMins=" */
    char utcOffDir;      /**< "UTCOffDir=": '+' or '-' */
    char name[32];       /**< "TimeZoneName=" */
    char style[8];       /**< "TimeZoneSty=": abbreviation such as "CST" */
} tovi_tz_info_s;

/** DST as the configuration lines describe it. */
typedef struct tovi_dst_info_s {
    char beginTime[24]; /**< "DstBeginTime=": MM?DD?hh?mm?ss */
    char endTime[24];   /**< "DstEndTime=" */
    char flag;          /**< "DstFlag=": lowest bit 1 = DST in use */
    uint32_t minutes;   /**< "DstMinOffSet=" */
} tovi_dst_info_s;

/** A date and time: seconds, minutes, hours, day 1-31, month 1-12, full
 *  year, weekday 0 = Sunday. */
typedef struct TOVI_DATE_TIME_S {
    uint32_t second;  /**< 0-59 */
    uint32_t minute;  /**< 0-59 */
    uint32_t hour;    /**< 0-23 */
    uint32_t day;     /**< 1-31 */
    uint32_t month;   /**< 1-12 */
    uint32_t year;    /**< full year, such as 2024 */
    uint32_t weekday; /**< 0 = Sunday ... 6 = Saturday */
} TOVI_DATE_TIME_S;

/** A date and time without weekday, in the order of TOVI_DATE_TIME_S. */
typedef struct tovi_time_store_s {
    uint32_t field[6]; /**< second, minute, hour, day, month, year */
} tovi_time_store_s;

/** One DST rule of a year. */
typedef struct tovi_dst_rule_s {
    char begin[32];  /**< "YYYY-MM-DD hh:mm:ss" as the script gives it */
    char end[32];    /**< the same layout */
    uint32_t offset; /**< DST minutes */
} tovi_dst_rule_s;

/** The DST rules of a region for the current year: up to five. */
typedef struct tovi_dst_rules_s {
    tovi_dst_rule_s rule[5]; /**< the rules, in the script's order */
    uint32_t count;          /**< rules filled */
} tovi_dst_rules_s;

/** Transitions the kernel zone table holds. */
#define TOVI_TZ_TABLE_MAX 544u

/** One transition of the kernel zone table: from `utc` on, `gmtoff` holds. */
typedef struct tovi_tz_transition_s {
    int64_t utc;    /**< UTC seconds */
    int32_t gmtoff; /**< offset from UTC in seconds */
    uint8_t pad[4]; /**< zero */
} tovi_tz_transition_s;

/** The zone table pushed with ioctl 902 (8720 bytes, little-endian). */
typedef struct tovi_tz_table_s {
    uint32_t count;        /**< transitions that follow */
    uint32_t noTransition; /**< 1 when the zone has none, else 0 */
    int64_t gmtoff;        /**< with noTransition: the zone's offset in seconds, else 0 */
    tovi_tz_transition_s transition[TOVI_TZ_TABLE_MAX]; /**< in time order */
} tovi_tz_table_s;

/** The ioctl request that hands a tovi_tz_table_s to "/proc/kar/timezone". */
#define TOVI_TZ_IOCTL 902u

/** Zone from the configuration lines; hours 0, minutes 0, '+', blank names. */
TOVI_API extern tovi_tz_info_s m_stTZInfo;
/** DST from the configuration lines; begin "0", end "0", flag 0, minutes 0. */
TOVI_API extern tovi_dst_info_s g_toviDstInfo;
/** Current zone name ("UTC" at first), set by tovi_time_zone_name_set. */
TOVI_API extern char m_ascTimeZoneName[256];
/** Current zone abbreviation ("UTC" at first). */
TOVI_API extern char m_ascTimeZoneStyle[8];
/** Offset direction '+' or '-' ('c' until the first tovi_time_setzoneutc). */
TOVI_API extern int32_t m_siTimeZoneOffsetDir;
/** Absolute offset: whole hours. */
TOVI_API extern int32_t m_siTimeZoneUTCHours;
/** Absolute offset: the remaining minutes. */
TOVI_API extern int32_t m_siTimeZoneMinutes;
/** Zone name copy used by the DST test. */
TOVI_API extern char m_ascTZName[32];
/** Style copy used by the DST test. */
TOVI_API extern char m_ascStyle[8];
/** DST begin copy used by the DST test. */
TOVI_API extern char m_ascDstBeginTime[24];
/** DST end copy used by the DST test. */
TOVI_API extern char m_ascDstEndTime[24];
/** Scratch date and time. */
TOVI_API extern tovi_time_store_s m_stTimeStore;
/** The command line that tells the platform script the zone ("tokproc"). */
TOVI_API extern char m_ascCmd[512];
/** Days before each month: row 0 common years, row 1 leap years. */
TOVI_API extern const uint16_t m_ausMon_YearDay[2][13];

/** "TimeZoneName=NAME" into m_stTZInfo.name. 0, or -1 (NULL, other key, no value). */
TOVI_API int32_t tovi_time_settzname(const char *line);
/** "TimeZoneSty=STYLE" into m_stTZInfo.style. 0 or -1. */
TOVI_API int32_t tovi_time_settzstyle(const char *line);
/** "UTCOffHours=N" into m_stTZInfo.utcOffHours. 0 or -1. */
TOVI_API int32_t tovi_time_setutcoffsetH(const char *line);
/** "UTCOffMins=N" into m_stTZInfo.utcOffMins. 0 or -1. */
TOVI_API int32_t tovi_time_setutcoffsetM(const char *line);
/** "UTCOffDir=C" into m_stTZInfo.utcOffDir. 0 or -1. */
TOVI_API int32_t tovi_time_setutcoffsetD(const char *line);
/** "DstFlag=C" into g_toviDstInfo.flag. 0 or -1. */
TOVI_API int32_t tovi_time_setdstflag(const char *line);
/** "DstMinOffSet=N" into g_toviDstInfo.minutes. 0 or -1. */
TOVI_API int32_t tovi_time_setdstoffsetM(const char *line);
/** "DstBeginTime=..." (at most 23 characters) into g_toviDstInfo.beginTime. 0 or -1. */
TOVI_API int32_t tovi_time_setdstbegintime(const char *line);
/** "DstEndTime=..." (at most 23 characters) into g_toviDstInfo.endTime. 0 or -1. */
TOVI_API int32_t tovi_time_setdstendtime(const char *line);

/** Local seconds from the kernel clock, also into *out (may be NULL); 0 on failure. */
TOVI_API uint64_t tovi_time_getlocaltime(uint64_t *out);
/** Local seconds for `utc`; `utc` itself on failure. */
TOVI_API uint64_t tovi_time_getlocal_fromutc(uint64_t utc);
/** UTC seconds from the kernel clock, also into *out (may be NULL); 0 on failure. */
TOVI_API uint64_t tovi_time_gettime(uint64_t *out);
/** DST-adjusted local seconds for `utc`; 0 on failure. */
TOVI_API uint64_t tovi_time_getdst_fromutc(uint64_t utc);
/** DST-adjusted local seconds of now into *out: 0, or -1 (NULL out, failure). */
TOVI_API int32_t tovi_time_getdsttime(uint64_t *out);

/** Breaks seconds since 1970 (*t, or the kernel's UTC when t is NULL) into
 *  *r; years from 5001 on wrap to 1970. Nothing for a NULL r. */
TOVI_API void tovi_time_gmtime(const uint64_t *t, TOVI_DATE_TIME_S *r);
/** tovi_time_gmtime as "Thu Jan 1  00:00:00 1970" into buf (len bytes,
 *  truncated). 0. */
TOVI_API int32_t tovi_time_asctime(const uint64_t *t, char *buf, uint32_t len);
/** Seconds since 1970 of the first six fields of *r; 0 for NULL. No range check. */
TOVI_API uint64_t tovi_time_mktime(const TOVI_DATE_TIME_S *r);

/** Formats name into m_ascTimeZoneName. 0, or -1 for NULL or a name longer
 *  than 255 characters, which leaves the current name as it was. */
TOVI_API int32_t tovi_time_zone_name_set(const char *name, uint32_t len);
/** Writes "+00:00", "UTC", "UTC" into those of the three that are not NULL. */
TOVI_API void tovi_time_setforutc(char *utcoff, char *zonename, char *style);
/** Writes tm's offset as "%c%02d:%02d" into utcoff (32 bytes) and the
 *  m_siTimeZone* globals; an offset of 0 reads "-00:00". */
TOVI_API void tovi_time_setzoneutc(char *utcoff, const struct tm *tm);
/** The current zone's standard offset (32 bytes), name (64) and style (32);
 *  any may be NULL. 0 or -1. */
TOVI_API int32_t tovi_time_gettz(char *utcoff, char *zonename, char *style);
/** tovi_zonename_get_shell. */
TOVI_API int32_t tovi_time_getzonename(char *buf);
/** *isdst = whether local time at *t (now when t is NULL) is in DST.
 *  0, -22 for a NULL isdst, -1. */
TOVI_API int32_t time_query_dst_for_localtime(const time_t *t, uint32_t *isdst);
/** Takes the DST share off tm->tm_gmtoff when now is in DST. 0 or -1. */
TOVI_API int32_t tovi_time_process_gmtoff(struct tm *tm);
/** The current zone's DST begin and end (256 bytes each) and DST minutes
 *  from the platform script; *reserved = 0. 0 or -1. */
TOVI_API int32_t tovi_time_querydstconf(char *begin, char *end, uint32_t *dstMinutes, uint32_t *reserved);
/** *dstFlag = whether the zone uses DST. 0, -22 (NULL), -1. */
TOVI_API int32_t tovi_time_query_dstforregion(const char *zone, uint32_t *dstFlag);
/** The zone's DST begin and end (14 bytes each, not terminated) and offset;
 *  *second is not written. 0 or -1. */
TOVI_API int32_t tovi_time_query_dstconfinfoforregion(const char *zone, char *begin, char *end,
                                                       uint32_t *offset, uint32_t *second);
/** The zone's DST rules of the current year. 0 or -1. */
TOVI_API int32_t tovi_time_query_dstconfforregion(const char *zone, tovi_dst_rules_s *rules);
/** -1 when s holds one of ; < $ & \ | ` > ! or a line feed, else 0. */
TOVI_API int32_t tovi_filter_special_character(const char *s);
/** 0 when the moment utcSeconds is in DST, -1 when not or on failure. With
 *  useStored the zone and rules come from m_stTZInfo and g_toviDstInfo;
 *  otherwise from the live system (local time by localtime_r, the rules
 *  from the platform script). The year is never compared. */
TOVI_API int32_t tovi_time_ckdst(int32_t useStored, uint64_t utcSeconds);
/** Sets the zone through the platform script and pushes it to the kernel
 *  side. 0, or the failing step's result. */
TOVI_API int32_t tovi_time_settz(const char *zone);
/** Sets the RTC and then the system clock to *t (1 ... 3124223999) and
 *  pushes the zone. 0 or -1. */
TOVI_API int32_t tovi_time_settime(const time_t *t);

/** Sets the zone with timedatectl, else by linking "/etc/localtime". 0,
 *  -22 (NULL or dangerous), -2 (no such zone), -1. */
TOVI_API int32_t tovi_timezone_set(const char *zone);
/** Sets and syncs the zone through the platform script. 0, -22, -1. */
TOVI_API int32_t tovi_timezone_set_shell(const char *zone);
/** The zone's name (64 bytes) from timedatectl, the "/etc/localtime" link
 *  or "/etc/sysconfig/clock", the first that answers. 0 or -1. */
TOVI_API int32_t tovi_zonename_get(char *buf);
/** The zone's name (64 bytes) from the platform script; also kept in
 *  m_ascTimeZoneName. 0 (also for a NULL buf, doing nothing) or -1. */
TOVI_API int32_t tovi_zonename_get_shell(char *buf);
/** Zone name from timedatectl into buf (len bytes). 0 or -1. */
TOVI_API int32_t tovi_zonename_get_by_timedatectl(char *buf, uint32_t len);
/** Zone name from the "/etc/localtime" link into buf (len bytes). 0 or -1. */
TOVI_API int32_t tovi_zonename_get_by_soft_link(char *buf, uint32_t len);
/** Zone name from "/etc/sysconfig/clock" into buf (len bytes). 0 or -1. */
TOVI_API int32_t tovi_zonename_get_by_sysconfig(char *buf, uint32_t len);

TOVI_EXTERN_C_END

#endif
