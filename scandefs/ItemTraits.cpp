#include "scandefs/ItemTraits.h"

#include <cwchar>
#include <iterator>

namespace {

const wchar_t* const kNames[] = {L"cache", L"history", L"sign-in", L"saved"};
const wchar_t* const kWords[] = {
    L"Comes back by itself: caches, thumbnails, logs, dumps and temporary files",
    L"Deletes what you did: history, recent lists, typed addresses and download lists",
    L"Signs you out or forgets open tabs and site settings: cookies, web storage, sessions and sync data",
    L"Deletes your saved data, which nothing brings back: passwords, form data, bookmarks or saved files"};

}  // namespace

const wchar_t* CostName(ECost cost) {
  return cost >= costCache && cost <= costSaved ? kNames[cost] : L"";
}

bool ParseCost(const wchar_t* text, ECost& cost) {
  for (size_t i = 0; text && i < std::size(kNames); ++i)
    if (_wcsicmp(text, kNames[i]) == 0) {
      cost = static_cast<ECost>(i);
      return true;
    }
  return false;
}

const wchar_t* CostWords(ECost cost) {
  return cost >= costCache && cost <= costSaved ? kWords[cost] : L"";
}
