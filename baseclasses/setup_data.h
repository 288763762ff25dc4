// What a filter tells the system about itself and its pins when it is registered.
#pragma once

#include "objects.h"

typedef REGPINTYPES AMOVIESETUP_MEDIATYPE, *PAMOVIESETUP_MEDIATYPE, *LPAMOVIESETUP_MEDIATYPE;
typedef REGFILTERPINS AMOVIESETUP_PIN, *PAMOVIESETUP_PIN, *LPAMOVIESETUP_PIN;

typedef struct _AMOVIESETUP_FILTER {
    const CLSID* clsID;
    const WCHAR* strName;
    DWORD dwMerit;
    UINT nPins;
    const AMOVIESETUP_PIN* lpPin;
} AMOVIESETUP_FILTER, *PAMOVIESETUP_FILTER, *LPAMOVIESETUP_FILTER;
