// What the loader and the thumbnailer share: pictures as pixbufs.
#ifndef KEL_DESKTOP_PIXBUFS_HPP
#define KEL_DESKTOP_PIXBUFS_HPP

#include <gdk-pixbuf/gdk-pixbuf.h>
#include <kel/host.hpp>

#include <memory>

namespace kel::desktop {

struct Unref {
  void operator()(void* object) const { g_object_unref(object); }
};
using PixbufPointer = std::unique_ptr<GdkPixbuf, Unref>;

/// A session takes half of the machine's memory at most.
std::uint64_t MemoryLimit();

/// An empty pixbuf for an image, with what the image says of orientation, profile and resolution as
/// the options under which other loaders give them. Throws Error (kMemory).
PixbufPointer MakePixbuf(const host::Image& description);

/// Throws as PutScreenPixels.
void FillPixbuf(host::Image image, GdkPixbuf* pixbuf);

/// The whole picture with as many halvings, up to those that it has, as leave at least so many
/// columns and rows. Throws as Picture.
host::Image DecodeFor(host::RangeSource& source, std::uint32_t width, std::uint32_t height);

}  // namespace kel::desktop

#endif
