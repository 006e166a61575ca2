#include "qmerror.hpp"

#include <cstdio>
#include <cstring>

const char* QMstrerror(int no) {
  // One buffer per thread, so that two threads reporting errors at once keep their own text.
  thread_local char text[1024];
  char scratch[1024];
  memset(text, 0, sizeof text);
  snprintf(text, sizeof text, "%s", strerror_r(no, scratch, sizeof scratch));
  return text;
}
