#include "app/HostError.h"

#include <cstdio>
#include <exception>

#include "app/Text.h"
#include "atl/CAtlException.h"
#include "core/PathString.h"

namespace host {

std::wstring ExceptionText() {
  try {
    throw;
  } catch (const CHostError& e) {
    return e.message;
  } catch (const CAtlException& e) {
    wchar_t text[64];
    swprintf(text, 64, L"error 0x%08lX", static_cast<unsigned long>(e.m_hr));
    return text;
  } catch (const Exception& e) {
    return e.m_message;
  } catch (const std::exception& e) {
    return Wide(e.what());
  } catch (...) {
    return L"unexpected error";
  }
}

}  // namespace host
