// Header of shapes.c: a type and an inline function declared here.
struct shape {
  int w;
  int h;
};
static inline int area(const struct shape* s)
{
  return s->w * s->h;
}
