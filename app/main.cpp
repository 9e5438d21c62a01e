#include "app/main_flow.h"

int main(int argc, char** argv) {
    return brivloMain(argc, argv);
}
