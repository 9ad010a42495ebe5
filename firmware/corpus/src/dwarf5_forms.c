/* The C that dwarf5_forms.s describes: GCC -O2 code with hand-written DWARF 5. */
struct forms_pair {
    int first;
    unsigned char tag;
};

int forms_counter = 7;
struct forms_pair forms_pair = { 1, 2 };
static const unsigned int forms_key[4] = { 0x11223344, 0x55667788, 0x99aabbcc, 0xddeeff00 };

void forms_fail(int code)
{
    forms_counter = code;
}

int forms_scale(int value, int factor)
{
    int acc = value * factor;
    if (acc > 100)
        acc -= forms_counter;
    return acc;
}

int forms_check(int v)
{
    if (v < 0) {
        forms_fail(v);
        return -1;
    }
    return forms_scale(v, forms_pair.first) + forms_pair.tag;
}
