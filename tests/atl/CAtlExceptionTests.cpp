#include <gtest/gtest.h>

#include "atl/CAtlException.h"

namespace {

TEST(CAtlException, CarriesItsHResultAcrossTheLibrary) {
  HRESULT seen = S_OK;
  try {
    AtlThrow(E_INVALIDARG);
  } catch (const CAtlException& e) {
    seen = e;
  }
  EXPECT_EQ(seen, E_INVALIDARG);
  EXPECT_EQ(static_cast<HRESULT>(CAtlException()), E_FAIL);
  EXPECT_EQ(CAtlException(E_OUTOFMEMORY).m_hr, E_OUTOFMEMORY);
}

}  // namespace
