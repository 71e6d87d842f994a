// QUIB: imaging and measurement. Includes every public header of the library.
#pragma once

#include <quib/clock.hpp>
#include <quib/contour.hpp>
#include <quib/dib.hpp>
#include <quib/dicom.hpp>
#include <quib/export.hpp>
#include <quib/feature.hpp>
#include <quib/hash.hpp>
#include <quib/image.hpp>
#include <quib/path.hpp>
#include <quib/region.hpp>
