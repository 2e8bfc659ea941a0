#include "PhotoConsistency.h"

int main(int argc, char** argv) { return tessaline::photo::runPhotoConsistencyCommand(argc, argv); }
