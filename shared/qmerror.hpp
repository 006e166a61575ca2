// System error texts.
#pragma once

// The text for errno value `no`, in a buffer of this thread's that the next call overwrites.
const char* QMstrerror(int no);
