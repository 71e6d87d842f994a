// QUIB: imaging and measurement. Includes every public header of the library.
#pragma once

#include <quib/export.hpp>
#include <quib/region.hpp>
#include <quib/image.hpp>
#include <quib/dib.hpp>
#include <quib/math.hpp>
#include <quib/robust.hpp>
#include <quib/fit.hpp>
#include <quib/curve.hpp>
#include <quib/slope.hpp>
#include <quib/random.hpp>
#include <quib/ransac.hpp>
#include <quib/discrim.hpp>
