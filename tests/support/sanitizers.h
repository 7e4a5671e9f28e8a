#pragma once
// Defines what the program is built with: VORNFC_TEST_TSAN, the thread sanitizer, which takes its
// time; VORNFC_TEST_SANITIZED, that or the address sanitizer: either has its own malloc() and
// strcasecmp().

#ifndef __has_feature
#define __has_feature(feature) 0
#endif

#if defined(__SANITIZE_THREAD__) || __has_feature(thread_sanitizer)
#define VORNFC_TEST_TSAN 1
#endif

#if defined(VORNFC_TEST_TSAN) || defined(__SANITIZE_ADDRESS__) || __has_feature(address_sanitizer)
#define VORNFC_TEST_SANITIZED 1
#endif
