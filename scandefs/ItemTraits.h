#pragma once
// What an item means to its user beside what it cleans: what cleaning it
// costs them. Definitions say it on groups and items; an item without a
// word of its own takes its nearest group's, and one no group names costs
// the least.
#include "core/Export.h"

// Cheapest first: comes back by itself, what the user did, what signs them
// out, and what nothing brings back.
enum ECost { costUnset = -1, costCache = 0, costHistory = 1, costSignIn = 2, costSaved = 3 };

// "cache", "history", "sign-in", "saved"; empty for costUnset.
BROOM_API const wchar_t* CostName(ECost cost);
// One of the four names, any case; false for anything else.
BROOM_API bool ParseCost(const wchar_t* text, ECost& cost);
// What cleaning such an item takes from its user, in words, for a tooltip
// or a question: "Deletes your saved passwords, form data or bookmarks".
BROOM_API const wchar_t* CostWords(ECost cost);
