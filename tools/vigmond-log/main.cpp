#include "session.h"

int main(int argc, char **argv) { return vlog::run(argc, argv); }
