#pragma once

// BROOM_API marks what broomcore.dll exports; the host sees it as imported.
#if defined(BROOMCORE_BUILD)
#define BROOM_API __declspec(dllexport)
#else
#define BROOM_API __declspec(dllimport)
#endif
