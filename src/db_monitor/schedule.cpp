// When each folder source is scanned again: its schedule from the settings, and the next time it is due,
// counted in local time.
#include "db_monitor/db_monitor.h"
#include "debug/debug.h"

static const uint64_t k_minute = 600000000ull;
static const uint64_t k_day = 864000000000ull;

void db_folder_schedule(const config_folder_t *f, uint32_t *type, uint32_t *value) {
    *type = DB_UPDATE_NONE;
    *value = 0;
    // A negative interval is no schedule: as an unsigned count of minutes it would mean centuries.
    if (f->update_type == 1 && f->update_interval > 0 &&
        (f->update_interval_type == 0 || f->update_interval_type == 1)) {
        *type = DB_UPDATE_INTERVAL;
        *value = (uint32_t) f->update_interval * (f->update_interval_type == 1 ? 60 : 1);
    } else if (f->update_type == 2 && f->update_at >= 0 && f->update_at < 24 && f->update_day >= 0 &&
               f->update_day <= 7) {
        *type = DB_UPDATE_DAILY;
        *value = (uint32_t) (f->update_day * 24 + f->update_at);
    }
}

// Moves a local date by whole days of the calendar. The date alone is carried through the zone-free UTC
// conversions, so the days count as calendar days whatever their length in the zone.
static bool _add_days(os_systemtime_t *t, int days) {
    os_systemtime_t d = {t->year, t->month, 0, t->day, 0, 0, 0, 0};
    uint64_t ft;
    if (!os_system_to_filetime(&d, &ft)) {
        return false;
    }
    ft += (uint64_t) (int64_t) days * k_day;
    if (!os_filetime_to_system(ft, &d)) {
        return false;
    }
    t->year = d.year;
    t->month = d.month;
    t->day = d.day;
    t->day_of_week = d.day_of_week;
    return true;
}

uint64_t db_folder_next_update(uint32_t type, uint32_t value, uint64_t now) {
    if (type == DB_UPDATE_INTERVAL) {
        return now + (uint64_t) value * k_minute;
    }
    if (type != DB_UPDATE_DAILY) {
        return 0;
    }
    os_systemtime_t local;
    if (!os_filetime_to_local(now, &local)) {
        return now + k_day;
    }
    uint32_t weekday = value / 24;
    local.hour = (int) (value % 24);
    local.minute = local.second = local.milliseconds = 0;
    // Weekday 1 is Sunday, the first day of the week, whose day_of_week is 0. A day earlier in this week
    // lies behind now and moves on by a week below.
    int ahead = weekday ? (int) weekday - 1 - local.day_of_week : 0;
    uint64_t at;
    if (!_add_days(&local, ahead) || !os_local_to_filetime(&local, &at)) {
        return now + k_day;
    }
    if (at > now) {
        return at;
    }
    // Passed (at this very minute too): the same local hour a day or a week on, which across a change of
    // daylight saving is 23, 25, 167 or 169 hours later.
    if (!_add_days(&local, weekday ? 7 : 1) || !os_local_to_filetime(&local, &at)) {
        return now + (weekday ? 7 : 1) * k_day;
    }
    return at;
}

void db_folder_schedule_next(db_fs_t *fs) {
    fs->next_update = db_folder_next_update(fs->update_type, fs->update_value, os_filetime_now());
    os_systemtime_t local;
    if (fs->next_update && os_filetime_to_local(fs->next_update, &local)) {
        debug_printf("next update at %d/%02d %d:%02d\n", local.month, local.day, local.hour, local.minute);
    }
}
