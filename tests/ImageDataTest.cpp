// The sample container.
#include "kel/KelImageData.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "HostMemory.h"
#include "samples/KelImageDataAccess.h"

namespace {

using test::HostMemory;
using ImageData = test::LibraryTest;

// Samples that are whatever the host's block held; a range kept for another buffer.
TEST_F(ImageData, ObtainsZeroFilledSamples) {
  KelImageData image;
  EXPECT_EQ(image.InitKelImageData(4, 3, 2, 0, nullptr), KelOK);
  {
    const kel::BufferLock lock(image.GetImageBuffer());
    EXPECT_EQ(std::count(lock.As<std::uint8_t>(), lock.As<std::uint8_t>() + 24, 0), 24);
  }
  image.DynRangeMin = 0;
  image.DynRangeMax = 1;
  image.SetImageBuffer(image.GetImageBuffer());
  EXPECT_FALSE(image.DynRangeIsValid()) << "another buffer, another range";
  image.FreeImageBuffer();
  image.FreeImageBuffer();
  EXPECT_EQ(image.GetImageBuffer(), nullptr);
}

TEST_F(ImageData, SizesThatCannotBeHeld) {
  KelImageData image;
  const std::size_t before = memory.Requests();
  EXPECT_THROW(image.InitKelImageData(65536, 65536, 1, 0, nullptr), KelException);
  EXPECT_THROW(image.InitKelImageData(INT32_MAX, INT32_MAX, 4, 0, nullptr), KelException);
  EXPECT_EQ(memory.Requests(), before);
  EXPECT_EQ(image.GetImageBuffer(), nullptr);
  KelMemFuncs nothing = *KelGetMemObj();
  nothing.AllocBuf = [](KelULong) -> KelBufID_I* { return nullptr; };
  KelMemFuncs* host = KelGetMemObj();
  KelLibInit(&nothing);
  EXPECT_EQ(image.InitKelImageData(0, 3, 1, 0, nullptr), KelErrNoMemory);
  EXPECT_EQ(image.InitKelImageData(-5, 3, 1, 0, nullptr), KelErrNoMemory);
  KelLibInit(host);
}

}  // namespace
