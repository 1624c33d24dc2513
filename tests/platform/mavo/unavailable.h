// What an operation says that cannot be carried out now.
#ifndef TESTS_PLATFORM_MAVO_UNAVAILABLE_H
#define TESTS_PLATFORM_MAVO_UNAVAILABLE_H

#include <string>

#include "mavo/database.h"

// Empty where nothing was thrown.
template <typename Action> std::string unavailable(Action action) {
    try {
        action();
    } catch (const mavo::database::Unavailable &exception) {
        return exception.what();
    }
    return {};
}

#endif
