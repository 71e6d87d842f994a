// quib.Image over NumPy arrays, and bitmap files read band by band.
#include "common.hpp"

#include <quib/dib.hpp>
#include <quib/image.hpp>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <memory>

namespace quib {
namespace python {
namespace {

/// The Python image: the library's image and, when its pixels are borrowed from an array,
/// that array (so the pixels live as long as the image does).
struct PyImage {
  Image image;
  py::object owner;
  bool readonly = false;
};

/// NumPy's format character for the image's samples, or null when its samples are not
/// 8-bit, 16-bit or 32-bit float.
char const* sample_format(Image const& image, py::ssize_t& itemsize) {
  const int channels = image.getChannel();
  const int bits = channels > 0 ? image.getBits() / channels : 0;
  if (channels <= 0 || bits * channels != image.getBits()) return nullptr;
  itemsize = bits / 8;
  switch (bits) {
    case 8:
      return "B";
    case 16:
      return "H";
    case 32:
      return "f";
    default:
      return nullptr;
  }
}

color_type color_of(py::ssize_t channels) {
  switch (channels) {
    case 1:
      return color_type::grey;
    case 3:
      return color_type::bgr;
    default:
      return color_type::bgra;
  }
}

/// One pixel is one block of `bits` / 8 bytes, spelt out: the library derives block formats
/// only for the classic bit depths, not for 48 to 128 bits.
ImageCoordinator pixel_format(int bits, py::ssize_t channels) {
  return ImageCoordinator(bits, 1, 1, bits / 8, color_of(channels));
}

int checked_int(py::ssize_t v, char const* what) {
  if (v < 0 || v > std::numeric_limits<int>::max() / 16)
    fail_value(std::string(what) + " out of range: " + std::to_string(v));
  return static_cast<int>(v);
}

/// The bits per sample of an image array's dtype: 8, 16 or 32 (float); refuses other dtypes.
int sample_bits(py::array const& array, char const* what) {
  if (array.dtype().is(py::dtype::of<std::uint8_t>())) return 8;
  if (array.dtype().is(py::dtype::of<std::uint16_t>())) return 16;
  if (array.dtype().is(py::dtype::of<float>())) return 32;
  fail_value(std::string(what) + " has dtype uint8, uint16 or float32, not " +
             std::string(py::str(array.dtype())));
}

/// Checks an image array and gives its samples' bits, channels and row stride. Rows may be
/// padded (a crop of a wider array), but the pixels of one row must be contiguous.
struct Layout {
  int bits;
  py::ssize_t channels;
  int stride;
};

Layout layout_of(py::array const& array, char const* what) {
  const py::ssize_t ndim = array.ndim();
  if (ndim != 2 && ndim != 3)
    fail_value(std::string(what) + " has shape (rows, columns) or (rows, columns, channels), not " +
               shape_text(array));
  const py::ssize_t channels = ndim == 3 ? array.shape(2) : 1;
  if (channels != 1 && channels != 3 && channels != 4)
    fail_value(std::string(what) + " has 1, 3 or 4 channels, not " + std::to_string(channels));
  const int bits = sample_bits(array, what);
  const py::ssize_t item = bits / 8;
  const py::ssize_t rows = array.shape(0), columns = array.shape(1);
  const py::ssize_t row_stride = array.strides(0);
  const bool packed = (ndim == 2 || array.strides(2) == item) &&
                      (columns <= 1 || array.strides(1) == channels * item) &&
                      (rows <= 1 || row_stride >= columns * channels * item);
  if (!packed)
    fail_value(std::string(what) + ": the pixels are not contiguous within a row (strides " +
               std::to_string(row_stride) + ", " + std::to_string(array.strides(1)) +
               "); pass numpy.ascontiguousarray(array)");
  return {bits, channels,
          checked_int(rows <= 1 ? columns * channels * item : row_stride, "row stride")};
}

/// Wraps the array's memory (no copy); the Python image keeps the array alive.
PyImage wrap(py::array array) {
  PyImage out;
  out.image = image_of(array);
  out.owner = array;
  out.readonly = !array.writeable();
  return out;
}

PyImage owned(py::ssize_t rows, py::ssize_t columns, py::ssize_t channels, py::object type) {
  const py::dtype dtype = py::dtype::from_args(type);
  const int bits = dtype.itemsize() * 8;
  if (!(dtype.is(py::dtype::of<std::uint8_t>()) || dtype.is(py::dtype::of<std::uint16_t>()) ||
        dtype.is(py::dtype::of<float>())))
    fail_value("an image has dtype uint8, uint16 or float32, not " +
               std::string(py::str(static_cast<py::handle>(dtype))));
  if (channels != 1 && channels != 3 && channels != 4)
    fail_value("an image has 1, 3 or 4 channels, not " + std::to_string(channels));
  PyImage out;
  out.image = Image(checked_int(columns, "columns"), checked_int(rows, "rows"),
                    pixel_format(static_cast<int>(bits * channels), channels));
  return out;
}

py::buffer_info buffer_of(PyImage& self) {
  Image& image = self.image;
  py::ssize_t item = 0;
  char const* format = sample_format(image, item);
  if (!format || image.empty())
    throw py::buffer_error("this image's samples are not 8-bit, 16-bit or 32-bit float");
  const py::ssize_t channels = image.getChannel();
  std::vector<py::ssize_t> shape{image.getHeight(), image.getWidth()};
  std::vector<py::ssize_t> strides{image.getLineBytes(), channels * item};
  if (channels > 1) {
    shape.push_back(channels);
    strides.push_back(item);
  }
  return py::buffer_info(image.getBuffer(), item, format, static_cast<py::ssize_t>(shape.size()),
                         shape, strides, self.readonly);
}

/// A bitmap file opened for reading band by band.
struct Bitmap {
  Dib dib;
  std::filesystem::path path;
};

Bitmap open_bitmap(std::filesystem::path const& path) {
  Bitmap b{Dib(path.string()), path};
  if (b.dib.fail()) fail_read(path, "not an uncompressed bitmap file, or its header is refused");
  return b;
}

/// A bitmap file describes its pixels as getColorCount() samples of getBits() bits.
py::ssize_t channels_of(Dib const& dib) {
  return dib.getColorCount();
}

bool readable(Dib const& dib) {
  const int n = dib.getColorCount();
  return dib.getBits() == 8 && (n == 1 || n == 3 || n == 4);
}

/// Reads `rows` rows at the cursor into `band` (rows x width x channels, C-contiguous), in
/// picture order; returns the picture row of the band's top, or -1 at the end. Bands come from
/// the bottom of the picture upwards, whatever the file's row order.
py::ssize_t read_band(Dib& dib, std::vector<unsigned char>& scratch, unsigned char* band, int rows,
                      int& n) {
  const int line = dib.getLineBytes();
  const int cursor = dib.tell(0);
  n = std::min(rows, dib.getHeight() - cursor);
  if (n <= 0) return -1;
  scratch.resize(static_cast<std::size_t>(n) * static_cast<std::size_t>(line));
  if (dib.read(scratch.data(), n * line) != n * line) return -2;
  const std::size_t packed =
      static_cast<std::size_t>(dib.getWidth()) * static_cast<std::size_t>(channels_of(dib));
  for (int r = 0; r < n; ++r) {
    const int from = dib.isTopDown() ? r : n - 1 - r;
    std::memcpy(band + static_cast<std::size_t>(r) * packed,
                scratch.data() + static_cast<std::size_t>(from) * static_cast<std::size_t>(line),
                packed);
  }
  return dib.getHeight() - cursor - n;
}

}  // namespace

Image image_of(py::array const& array, char const* what) {
  const Layout l = layout_of(array, what);
  return Image(checked_int(array.shape(1), "columns"), checked_int(array.shape(0), "rows"),
               l.stride, static_cast<unsigned char*>(const_cast<void*>(array.data())),
               pixel_format(static_cast<int>(l.bits * l.channels), l.channels));
}

cv::Mat mat_of(py::array const& array, char const* what) {
  const Layout l = layout_of(array, what);
  const int depth = l.bits == 8 ? CV_8U : l.bits == 16 ? CV_16U : CV_32F;
  return cv::Mat(checked_int(array.shape(0), "rows"), checked_int(array.shape(1), "columns"),
                 CV_MAKETYPE(depth, static_cast<int>(l.channels)), const_cast<void*>(array.data()),
                 static_cast<std::size_t>(l.stride));
}

py::array image_array(Image&& image) {
  py::object holder = py::cast(PyImage{std::move(image), py::object(), false});
  return py::array(py::buffer(holder));
}

void bind_image(py::module_& m) {
  py::class_<PyImage>(m, "Image", py::buffer_protocol(), R"doc(
An image whose pixels are either its own or borrowed from a NumPy array, without a copy.

``quib.Image(array)`` wraps a uint8, uint16 or float32 array of shape (rows, columns) or
(rows, columns, channels) with 1, 3 (BGR) or 4 (BGRA) channels; the pixels of a row must be
contiguous (a C-contiguous array, or a crop of one). The image keeps the array alive.
``numpy.asarray(image)`` is an array over the same pixels that keeps the image alive.
``quib.Image(rows, columns, channels=1, dtype=numpy.uint8)`` makes a zero-filled image that owns
its pixels. Raises quib.ArgumentError (a ValueError) for any other array. One image belongs to
one thread at a time.

    >>> a = numpy.zeros((480, 640, 3), numpy.uint8)
    >>> image = quib.Image(a)
    >>> numpy.shares_memory(numpy.asarray(image), a)
    True
)doc")
      .def(py::init([](py::array array) { return wrap(std::move(array)); }), py::arg("array"))
      .def(py::init(&owned), py::arg("rows"), py::arg("columns"), py::arg("channels") = 1,
           py::arg("dtype") = "uint8")
      .def_buffer(&buffer_of)
      .def_property_readonly("width", [](PyImage const& s) { return s.image.getWidth(); })
      .def_property_readonly("height", [](PyImage const& s) { return s.image.getHeight(); })
      .def_property_readonly("channels", [](PyImage const& s) { return s.image.getChannel(); })
      .def_property_readonly("bits", [](PyImage const& s) { return s.image.getBits(); })
      .def_property_readonly("line_bytes", [](PyImage const& s) { return s.image.getLineBytes(); })
      .def_property_readonly(
          "shape",
          [](PyImage const& s) {
            py::tuple t = py::make_tuple(s.image.getHeight(), s.image.getWidth());
            return s.image.getChannel() > 1 ? t + py::make_tuple(s.image.getChannel()) : t;
          })
      .def_property_readonly(
          "borrowed", [](PyImage const& s) { return s.image.isBorrowed(); },
          "True when the pixels belong to the array the image wraps.")
      .def("__repr__", [](PyImage const& s) {
        return "<quib.Image " + std::to_string(s.image.getWidth()) + "x" +
               std::to_string(s.image.getHeight()) + ", " + std::to_string(s.image.getBits()) +
               " bits, " + std::to_string(s.image.getChannel()) + " channel(s)>";
      });

  py::class_<Bitmap>(m, "Bitmap", R"doc(
An uncompressed bitmap file (BMP) opened for reading band by band into one reused array, so
that a picture larger than memory can be processed.

``bands(rows=256)`` yields ``(top, band)``: ``band`` is the same (n, columns[, channels]) uint8
array every time, holding picture rows top..top+n-1 top-down; bands come from the bottom of the
picture upwards. Bands are read from 8-, 24- and 32-bit files (8-bit files give their palette
indices, see ``palette``); quib.read_bmp reads every depth whole. Opening raises
FileNotFoundError or quib.FormatError. One Bitmap belongs to one thread at a time.

    >>> for top, band in quib.Bitmap("scan.bmp").bands(64):
    ...     total += band.sum()
)doc")
      .def(py::init(&open_bitmap), py::arg("path"))
      .def_property_readonly("width", [](Bitmap const& b) { return b.dib.getWidth(); })
      .def_property_readonly("height", [](Bitmap const& b) { return b.dib.getHeight(); })
      .def_property_readonly("bits", [](Bitmap const& b) { return b.dib.getBits(); })
      .def_property_readonly("channels", [](Bitmap const& b) { return channels_of(b.dib); })
      .def_property_readonly("top_down", [](Bitmap const& b) { return b.dib.isTopDown(); })
      .def_property_readonly(
          "palette",
          [](Bitmap const& b) {
            Palette p = b.dib.getPalette();
            py::array_t<std::uint8_t> out({static_cast<py::ssize_t>(p.size()), py::ssize_t(4)});
            if (p.size()) std::memcpy(out.mutable_data(), p.begin(), p.size() * 4);
            return out;
          },
          "The colour table as (n, 4) uint8 rows of blue, green, red, reserved.")
      .def(
          "bands",
          [](py::object self, int rows) {
            Bitmap& b = self.cast<Bitmap&>();
            if (rows <= 0) fail_value("rows must be positive");
            if (!readable(b.dib))
              fail_value(
                  "bands are read from 8-, 24- and 32-bit bitmaps; read_bmp reads every depth");
            b.dib.seek(0, 0);
            const int n = std::min(rows, std::max(b.dib.getHeight(), 1));
            std::vector<py::ssize_t> shape{n, b.dib.getWidth()};
            if (channels_of(b.dib) > 1) shape.push_back(channels_of(b.dib));
            py::array_t<std::uint8_t> band(shape);
            auto scratch = std::make_shared<std::vector<unsigned char>>();
            // A generator in Python terms: each step reads the next band into the same array.
            // It holds the Bitmap object, so the file stays open while the iterator lives.
            py::object next =
                py::cpp_function([self, &b, band, scratch, n]() mutable -> py::object {
                  py::ssize_t top;
                  int got = 0;
                  {
                    py::gil_scoped_release release;
                    top = read_band(b.dib, *scratch, band.mutable_data(), n, got);
                  }
                  if (top == -2)
                    fail_read(std::filesystem::path(b.dib.path()), "the file ended early");
                  if (top < 0) return py::none();
                  py::object view = band;
                  if (got != n) view = band[py::slice(0, got, 1)];
                  return py::make_tuple(top, view);
                });
            return py::module_::import("builtins").attr("iter")(next, py::none());
          },
          py::arg("rows") = 256);

  m.def(
      "read_bmp",
      [](std::filesystem::path const& path, std::string const& palette) {
        palette_t mode;
        if (palette == "grey_or_bgr")
          mode = palette_t::grey_or_bgr;
        else if (palette == "bgr")
          mode = palette_t::bgr;
        else if (palette == "index")
          mode = palette_t::index;
        else
          fail_value("palette is \"grey_or_bgr\", \"bgr\" or \"index\", not \"" + palette + "\"");
        Image image;
        {
          py::gil_scoped_release release;
          image = Dib::read_image(wide(path), mode);
        }
        if (image.empty())
          fail_read(path,
                    "not an uncompressed bitmap of 1, 2, 4, 8, 16, 24 or 32 bits, or rows are "
                    "missing");
        return image_array(std::move(image));
      },
      py::arg("path"), py::arg("palette") = "grey_or_bgr", R"doc(
Reads an uncompressed bitmap file of any depth (1, 2, 4, 8, 16, 24 or 32 bits per pixel) into a
uint8 array of shape (rows, columns[, channels]), top row first whatever the file's row order,
channels in BGR(A) order as cv2.imread gives them. Files with a colour table (1 to 8 bits) read
as ``palette`` says: "grey_or_bgr" (the default, as OpenCV reads them) gives grey levels when
every table entry is a grey and BGR otherwise, "bgr" always BGR, "index" the indices
themselves. 16-bit files (5 bits per colour) widen to BGR; 32-bit files keep their fourth byte.
The array is over the pixels of a library image (rows padded to 4 bytes) that it keeps alive.
Raises FileNotFoundError, IsADirectoryError or quib.FormatError. Releases the GIL.
)doc");

  m.def(
      "write_bmp",
      [](std::filesystem::path const& path, py::array array) {
        PyImage image = wrap(std::move(array));
        const int bits = image.image.getBits();
        if (bits != 8 && bits != 24 && bits != 32)
          fail_value("only uint8 images of 1, 3 or 4 channels are written as bitmaps");
        Palette palette;
        if (bits == 8) {
          palette = Palette(256);
          for (int i = 0; i < 256; ++i)
            palette[i] = 0x010101u * static_cast<unsigned>(i);
        }
        bool ok;
        {
          py::gil_scoped_release release;
          const int w = image.image.getWidth(), h = image.image.getHeight();
          // An existing bitmap would be reopened with its own header: replace the file instead.
          std::error_code ec;
          std::filesystem::remove(path, ec);
          // Row cursor 0 is the bottom row of the picture: rows go out bottom first.
          Dib out(path.string(), w, h, 3780, 3780, 8, 4, bits / 8, palette);
          ok = !out.fail();
          const std::size_t packed =
              static_cast<std::size_t>(w) * static_cast<std::size_t>(bits / 8);
          std::vector<unsigned char> row(static_cast<std::size_t>(out.getLineBytes()));
          for (int y = h - 1; ok && y >= 0; --y) {
            std::memcpy(
                row.data(),
                image.image.getBuffer() + static_cast<std::size_t>(y) *
                                              static_cast<std::size_t>(image.image.getLineBytes()),
                packed);
            ok =
                out.write(row.data(), static_cast<int>(row.size())) == static_cast<int>(row.size());
          }
        }
        if (!ok) throw Failure{Failure::write, path.string(), "the bitmap could not be written"};
      },
      py::arg("path"), py::arg("array"), R"doc(
Writes a uint8 array of shape (rows, columns[, 3 or 4]) as an uncompressed bitmap file (8-bit
files get a grey palette). Raises quib.WriteError when the file cannot be written.
)doc");
}

}  // namespace python
}  // namespace quib
