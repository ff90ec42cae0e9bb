// The catch-all of every side-module export: no exception leaves a module.
#pragma once

#include <exception>

#include "foundation/log.h"

/// Runs `body`; any exception is logged and `onError` is returned instead.
#define VAPORIX_MODULE_GUARD(onError, body)                                   \
    try {                                                                     \
        body                                                                  \
    } catch (const std::exception& e) {                                       \
        ::vaporix::lumoLog("Side module export failed: %s\n", e.what());      \
        return onError;                                                       \
    } catch (...) {                                                           \
        ::vaporix::lumoLog("Side module export failed: unknown exception\n"); \
        return onError;                                                       \
    }
