// Recording of one scan, as the collectors and the upload use it: the upload rows, the
// gathering of values into instances, matching against the previous snapshot and the
// difference document.
#pragma once

#include "tarninventory/src/diffdocument.h"
#include "tarninventory/src/matching.h"
#include "tarninventory/src/recording.h"
#include "tarninventory/src/uploadrows.h"
