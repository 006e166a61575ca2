// Size-based rotation of the log file, keeping one ".1" generation.
#pragma once

#include <cstddef>

// Renames `filename` to "<filename>.1" once it has reached maxsize_mb MiB.
// 0 when nothing had to be done or the file was rotated; -1 when the file cannot
// be examined (e.g. it does not exist yet) or the rotated name does not fit.
int QMLogCheckLogSwitch(const char* filename, size_t maxsize_mb);
