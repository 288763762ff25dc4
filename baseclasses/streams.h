// The DirectShow base classes: everything a source filter and its property pages are built on.
#pragma once

#include "bitmap_info.h"
#include "class_factory.h"
#include "filter.h"
#include "media_type.h"
#include "objects.h"
#include "pin.h"
#include "property_page.h"
#include "source.h"
