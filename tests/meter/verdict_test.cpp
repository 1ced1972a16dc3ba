// What is judged of which evidence, and how a verdict settles.
#include "meter/verdict.h"

#include "nax_meter.h"

#include <gtest/gtest.h>

namespace nax::meter {} // namespace nax::meter
