// Decodes the first frame of a DICOM file (any transfer syntax), prints its pixel module, and
// reads a folder of slices into a volume.
//   dicom_pixels ct.dcm [SERIES_FOLDER]
#include <quib/dicom_image.hpp>

#include <cstdio>
#include <string>

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: dicom_pixels FILE.dcm [FOLDER]\n");
    return 2;
  }
  const std::string narrow = argv[1];
  quib::Dicom file;
  if (file.load(std::wstring(narrow.begin(), narrow.end()), quib::Dicom::READ_STANDARD) < 0) {
    std::fprintf(stderr, "not a DICOM file: %s\n", argv[1]);
    return 1;
  }
  quib::DicomPixels pixels(file);  // refers to file's Pixel Data: keep file alive
  quib::Image frame;
  if (!pixels.decode(0, frame)) {
    std::fprintf(stderr, "%s: %s\n", argv[1], pixels.get_error().c_str());
    return 1;
  }
  std::printf("%d x %d, %d sample(s) of %d bits, %s, %d frame(s)\n", pixels.get_columns(),
              pixels.get_rows(), pixels.get_samples(), pixels.get_bits_allocated(),
              pixels.get_frame_photometric().c_str(), pixels.get_frames());

  // Real values (Hounsfield units for CT) and a picture through the file's first VOI LUT or window.
  quib::Image values, picture;
  if (pixels.get_samples() == 1 && pixels.decode_values(0, values)) {
    const float centre = reinterpret_cast<const float*>(
        values.getBuffer())[(values.getHeight() / 2) * values.getWidth() + values.getWidth() / 2];
    std::printf("value at the centre: %g\n", centre);
  }
  if (pixels.decode_display(0, picture)) std::printf("display: %d bits\n", picture.getBits());

  if (argc > 2) {
    const std::string folder = argv[2];
    quib::DicomVolume volume;
    if (!volume.load(std::wstring(folder.begin(), folder.end()), true)) {
      std::fprintf(stderr, "%s: %s\n", argv[2], volume.get_error().c_str());
      return 1;
    }
    const auto spacing = volume.get_spacing();
    std::printf("volume %d x %d x %d %s, spacing %g x %g x %g mm\n", volume.get_width(),
                volume.get_height(), volume.get_depth(), volume.get_sample_type().c_str(),
                spacing[0], spacing[1], spacing[2]);
  }
  return 0;
}
