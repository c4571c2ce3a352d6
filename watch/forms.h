// The forms that the program has.

#pragma once

#include <span>

#include "watch/core/form.h"

[[nodiscard]] std::span<const Form* const> formsAll();
