#include "app/startup.h"

int main(int argc, char** argv) { return RunTavit(argc, argv); }
