// The house log line: "<level>: <operation>(): <text>" and a final "%s" that
// is always filled with "". The format is put together at compile time, so
// the compiler checks every placeholder against its argument (syslog is
// declared printf-like; -Werror=format makes a mismatch a build error).
//
// The macros are CV_<LEVEL> rather than LOG_<LEVEL>: LOG_NOTICE, LOG_INFO
// and LOG_DEBUG are syslog's own priority constants.
//
// The operation name is the calling function's own (__func__). Where a line
// must carry another operation's name (a step of the main loop reporting as
// "controller_thread_loop", say), use the _AS form.
#pragma once

#include <syslog.h>

#define CORVALD_LOG(prio, word, op, fmt, ...) \
    ::syslog(prio, word ": %s(): " fmt "%s", op __VA_OPT__(, ) __VA_ARGS__, "")

#define CV_ERROR(fmt, ...) CORVALD_LOG(LOG_ERR, "error", __func__, fmt __VA_OPT__(, ) __VA_ARGS__)
#define CV_WARN(fmt, ...) CORVALD_LOG(LOG_WARNING, "warn", __func__, fmt __VA_OPT__(, ) __VA_ARGS__)
#define CV_NOTICE(fmt, ...) CORVALD_LOG(LOG_NOTICE, "notice", __func__, fmt __VA_OPT__(, ) __VA_ARGS__)
#define CV_INFO(fmt, ...) CORVALD_LOG(LOG_INFO, "info", __func__, fmt __VA_OPT__(, ) __VA_ARGS__)
#define CV_DEBUG(fmt, ...) CORVALD_LOG(LOG_DEBUG, "debug", __func__, fmt __VA_OPT__(, ) __VA_ARGS__)

#define CV_ERROR_AS(op, fmt, ...) CORVALD_LOG(LOG_ERR, "error", op, fmt __VA_OPT__(, ) __VA_ARGS__)
#define CV_WARN_AS(op, fmt, ...) CORVALD_LOG(LOG_WARNING, "warn", op, fmt __VA_OPT__(, ) __VA_ARGS__)
#define CV_NOTICE_AS(op, fmt, ...) CORVALD_LOG(LOG_NOTICE, "notice", op, fmt __VA_OPT__(, ) __VA_ARGS__)
#define CV_INFO_AS(op, fmt, ...) CORVALD_LOG(LOG_INFO, "info", op, fmt __VA_OPT__(, ) __VA_ARGS__)
#define CV_DEBUG_AS(op, fmt, ...) CORVALD_LOG(LOG_DEBUG, "debug", op, fmt __VA_OPT__(, ) __VA_ARGS__)
