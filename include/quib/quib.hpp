// QUIB: imaging and measurement. Includes every public header of the library.
#pragma once

#include <quib/export.hpp>
#include <quib/region.hpp>
#include <quib/image.hpp>
#include <quib/dib.hpp>
#include <quib/convert.hpp>
#include <quib/stl.hpp>
