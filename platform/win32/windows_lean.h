// The one way Windows headers enter the code base: lean, without min/max macros, wide by default.
#pragma once

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#ifndef UNICODE
#define UNICODE
#endif
#ifndef _UNICODE
#define _UNICODE
#endif

#include <windows.h>
#include <oaidl.h>
#include <objbase.h>
#include <oleauto.h>
#include <ocidl.h>
#include <olectl.h>
