// The host kit: everything around the library that a program otherwise writes itself.
//
//   kel::host::Session session;                                  // start the library
//   kel::host::FileSource photo("photo.ppm");
//   kel::host::Image image = kel::host::ReadPnm(photo);
//   kel::host::FileSink file("photo.kel");
//   kel::host::Encode(image, {}, file);                          // image in, file out
//
// It uses the library through its public headers, as any host would, and is ordinary C++20:
// containers, exceptions (kel::host::Error), threads. Its classes are not thread safe unless they
// say so; distinct objects may be used by distinct threads.
#ifndef KEL_HOST_HPP
#define KEL_HOST_HPP

#include "host/language.hpp"

#include "host/check.hpp"
#include "host/convert.hpp"
#include "host/decode.hpp"
#include "host/encode.hpp"
#include "host/errors.hpp"
#include "host/exif.hpp"
#include "host/image.hpp"
#include "host/limits.hpp"
#include "host/parallel.hpp"
#include "host/picture.hpp"
#include "host/pnm.hpp"
#include "host/probe.hpp"
#include "host/ranges.hpp"
#include "host/repair.hpp"
#include "host/row_streams.hpp"
#include "host/rows.hpp"
#include "host/screen.hpp"
#include "host/session.hpp"
#include "host/similarity.hpp"
#include "host/streams.hpp"
#include "host/trim.hpp"

#endif
