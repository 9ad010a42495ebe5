// Program with the control block of the terminal, `_MARLEK_LVT`.
unsigned _MARLEK_LVT[8];
unsigned other;
int main(void) { return (int)(_MARLEK_LVT[1] + other); }
