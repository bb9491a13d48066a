/*
 * Calendar time.
 *
 * Two families. The functions named "NoLocks", KovaGmtimeNolocks and KovaIsLeapYear take no lock, allocate nothing and
 * call nothing but time(): they may run inside a signal handler. The others use the C library's time zones and the
 * platform's log writer; their failures are logged at level 1, tag "Base".
 *
 * Threads: all functions may be called from several threads at once.
 */
#ifndef KOVA_CALENDAR_TIME_H
#define KOVA_CALENDAR_TIME_H

#include <stddef.h>
#include <stdint.h>
#include <time.h>

#include "kova/export.h"

KOVA_BEGIN_DECLS

/* A calendar time with milliseconds, in twelve bytes. */
typedef struct KovaSysTime {
    uint16_t year;   /* full year, 2024 */
    uint8_t month;   /* 1 to 12 */
    uint8_t day;     /* 1 to 31 */
    uint8_t hour;    /* 0 to 23 */
    uint8_t minute;  /* 0 to 59 */
    uint8_t second;  /* 0 to 59 */
    uint8_t weekday; /* 0 to 6, 0 is Sunday */
    uint32_t millisecond;
} KovaSysTime;

KOVA_STATIC_ASSERT(sizeof(KovaSysTime) == 12, "interface: KovaSysTime");
KOVA_STATIC_ASSERT(offsetof(KovaSysTime, month) == 2, "interface: KovaSysTime");
KOVA_STATIC_ASSERT(offsetof(KovaSysTime, weekday) == 7, "interface: KovaSysTime");
KOVA_STATIC_ASSERT(offsetof(KovaSysTime, millisecond) == 8, "interface: KovaSysTime");

/** @return 1 for a leap year of the Gregorian calendar, else 0. Signals: safe. */
KOVA_API uint32_t KovaIsLeapYear(uint32_t year);

/**
 * Converts seconds since 1970 to broken-down UTC. tm_isdst becomes 0; tm_gmtoff and tm_zone are left alone.
 *
 * @param seconds 0 or more. Negative values give no meaningful date.
 * @return The output. Signals: safe.
 */
KOVA_API struct tm *KovaGmtimeNolocks(struct tm *utc, int64_t seconds);

/** Converts the current time like KovaGmtimeNolocks. @return The seconds that were converted. Signals: safe. */
KOVA_API int64_t KovaGetGMTTimeNoLocks(struct tm *utc);

/**
 * Stores the current UTC time, with millisecond 0.
 *
 * @return The seconds that were converted; 0 when the output is NULL. Signals: safe.
 */
KOVA_API int64_t KovaGMTSystimeNoLocks(KovaSysTime *utc);

/** Stores the current UTC time. @return 0; else the error code of the bounded copy (NULL output). Signals: not safe. */
KOVA_API uint32_t KOVA_GetGMTTime(struct tm *utc);

/**
 * Converts a broken-down UTC time to local time.
 *
 * @param utc   In: calendar time in UTC. Used as working room: comes back changed.
 * @param local Out: the same moment in local time.
 * @return The output; NULL when there is no such local time. Signals: not safe.
 */
KOVA_API struct tm *KOVA_Conver2LocalTime(struct tm *utc, struct tm *local);

/**
 * Stores the current local time.
 *
 * @param daylightSaving Out: positive when daylight-saving time is in effect, else 0.
 * @return 0; 22 an output is NULL; 0xFFFFFFFF the clock cannot be read. Signals: not safe.
 */
KOVA_API uint32_t KOVA_LocalSystimeGet(KovaSysTime *local, uint32_t *daylightSaving);

/** Stores the current UTC time. @return 0; 22 the output is NULL; 0xFFFFFFFF no clock. Signals: not safe. */
KOVA_API uint32_t KOVA_GMT_SystimeGet(KovaSysTime *utc);

/**
 * Reads the whole seconds since boot from /proc/uptime.
 *
 * @return 0; 127 when the file cannot be opened or begins with no number; else the scan's result (1, or 0xFFFFFFFF for
 *         an empty file). The output is stored on success only. Signals: not safe.
 */
KOVA_API uint32_t KovaGetUpTime(uint32_t *seconds);

KOVA_END_DECLS

#endif /* KOVA_CALENDAR_TIME_H */
