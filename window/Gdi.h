#pragma once
// Holders for the drawing handles of the window: fonts, bitmaps, memory DCs
// and image lists, in the engine's holder template.
#include <windows.h>
#include <commctrl.h>

#include "core/Handles.h"

namespace broomw {

namespace policy {
struct gdi_object {
  using pointer = HGDIOBJ;
  static pointer invalid() { return nullptr; }
  static void close(pointer h) { DeleteObject(h); }
};
struct memory_dc {
  using pointer = HDC;
  static pointer invalid() { return nullptr; }
  static void close(pointer h) { DeleteDC(h); }
};
struct image_list {
  using pointer = HIMAGELIST;
  static pointer invalid() { return nullptr; }
  static void close(pointer h) { ImageList_Destroy(h); }
};
}  // namespace policy

using unique_gdiobj = broom::unique_resource<policy::gdi_object>;
using unique_memdc = broom::unique_resource<policy::memory_dc>;
using unique_imagelist = broom::unique_resource<policy::image_list>;

// The size at 96 DPI scaled to dpi.
inline int Scale(int size, int dpi) { return MulDiv(size, dpi, 96); }

}  // namespace broomw
