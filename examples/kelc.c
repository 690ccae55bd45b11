/* Kel file in, a smaller one of its upper left quarter out. Usage: kelc IN.kel OUT.kel */
#include <kel/kel.h>
#include <stdio.h>

int main(int argc, char** argv) {
  kel_file* file = NULL;
  kel_image* image = NULL;
  kel_info info;
  kel_decode_options part;
  kel_pixels pixels;
  int ok = argc == 3 && kel_open_file(argv[1], &file) == KEL_OK;
  kel_info_init(&info);
  kel_decode_options_init(&part);
  kel_pixels_init(&pixels);
  ok = ok && kel_get_info(file, &info) == KEL_OK;
  part.width = (info.width + 1) / 2;
  part.height = (info.height + 1) / 2;
  ok = ok && kel_decode(file, &part, &image) == KEL_OK &&
       kel_get_pixels(image, &pixels) == KEL_OK &&
       kel_encode_file(&pixels, NULL, argv[2]) == KEL_OK;
  if (!ok) fprintf(stderr, "%s\n", argc == 3 ? kel_error_text() : "usage: kelc IN.kel OUT.kel");
  kel_free_image(image);
  kel_close(file);
  return ok ? 0 : 1;
}
