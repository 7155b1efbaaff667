#include "tarninventory/src/tarninventory.h"

int main(int argc, const char** argv) { return tarn::RunInventoryScan(argc, argv); }
