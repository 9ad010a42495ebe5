// Unit with an inline function from a header: built at DWARF 5 and 4 with
// line tables written by the compiler.
#include "shapes.h"
struct shape g_box = {3, 4};
volatile int g_out;
int main(void)
{
  g_out = area(&g_box);
  return 0;
}
