#include "tools/qimtool/qimtool.h"

int main(int argc, char** argv) { return qimtool_main(argc, argv); }
