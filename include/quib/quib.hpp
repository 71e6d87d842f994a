// QUIB: imaging and measurement. Includes every public header of the library.
#pragma once

#include <quib/calibration.hpp>
#include <quib/clock.hpp>
#include <quib/contour.hpp>
#include <quib/convert.hpp>
#include <quib/curve.hpp>
#include <quib/dib.hpp>
#include <quib/dicom.hpp>
#include <quib/dicom_image.hpp>
#include <quib/discrim.hpp>
#include <quib/export.hpp>
#include <quib/feature.hpp>
#include <quib/fit.hpp>
#include <quib/hash.hpp>
#include <quib/image.hpp>
#include <quib/math.hpp>
#include <quib/mesh_measures.hpp>
#include <quib/ocv.hpp>
#include <quib/path.hpp>
#include <quib/projection.hpp>
#include <quib/random.hpp>
#include <quib/ransac.hpp>
#include <quib/region.hpp>
#include <quib/robust.hpp>
#include <quib/slope.hpp>
#include <quib/stl.hpp>
