// The version of the engine and its language, as scripts and mails see it.

#ifndef ZEPH_BASE_VERSION_H
#define ZEPH_BASE_VERSION_H

inline constexpr char kZephVersion[] = "5.29";

#endif
