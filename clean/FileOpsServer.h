#pragma once
// The out-of-process file-operations server that cleaning falls back to
// when the shell fails. It is installed separately; these identifiers are
// the ones it registers under.
#include <windows.h>
#include <oaidl.h>

// {6A7D6B1E-3C1B-4E8F-9B0E-2F3C5D7A8B01}
inline constexpr CLSID CLSID_BroomFileOpsFile = {
    0x6a7d6b1e, 0x3c1b, 0x4e8f, {0x9b, 0x0e, 0x2f, 0x3c, 0x5d, 0x7a, 0x8b, 0x01}};
// {6A7D6B1E-3C1B-4E8F-9B0E-2F3C5D7A8B02}
inline constexpr CLSID CLSID_BroomFileOpsFolder = {
    0x6a7d6b1e, 0x3c1b, 0x4e8f, {0x9b, 0x0e, 0x2f, 0x3c, 0x5d, 0x7a, 0x8b, 0x02}};
// {6A7D6B1E-3C1B-4E8F-9B0E-2F3C5D7A8B10}
inline constexpr IID IID_IFileOpsServer = {
    0x6a7d6b1e, 0x3c1b, 0x4e8f, {0x9b, 0x0e, 0x2f, 0x3c, 0x5d, 0x7a, 0x8b, 0x10}};

// Of the server's operations the engine uses the first and the eleventh to
// thirteenth; the others keep their slots.
struct IFileOpsServer : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE SetPath(BSTR path) = 0;
  virtual HRESULT STDMETHODCALLTYPE Unused2() = 0;
  virtual HRESULT STDMETHODCALLTYPE Unused3() = 0;
  virtual HRESULT STDMETHODCALLTYPE Unused4() = 0;
  virtual HRESULT STDMETHODCALLTYPE Unused5() = 0;
  virtual HRESULT STDMETHODCALLTYPE Unused6() = 0;
  virtual HRESULT STDMETHODCALLTYPE Unused7() = 0;
  virtual HRESULT STDMETHODCALLTYPE Unused8() = 0;
  virtual HRESULT STDMETHODCALLTYPE Unused9() = 0;
  virtual HRESULT STDMETHODCALLTYPE Unused10() = 0;
  virtual HRESULT STDMETHODCALLTYPE Remove() = 0;
  virtual HRESULT STDMETHODCALLTYPE RemoveAlternate() = 0;
  // code 1: the destination exists and suggestedPath holds a free alternative
  virtual HRESULT STDMETHODCALLTYPE MoveTo(long* code, VARIANT_BOOL overwrite, BSTR destination,
                                           BSTR* suggestedPath) = 0;
};
