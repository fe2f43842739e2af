// The terms of a fitted model by name.
#pragma once

#include <string>
#include <vector>

#include "app/engine.h"

namespace tolvan::driver {

/// The terms of a part of the model ("response", "fixed", "random", "sparse", "residual") as the engine names them.
std::vector<std::string> model_terms(Engine& engine, const char* part);

}  // namespace tolvan::driver
