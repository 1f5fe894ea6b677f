// The runner of a Flutter Linux build: the host with the Flutter view as its window's content
// and flutter_linux's engine as its engine connection.
#include "flutter/flutter_main.h"

int main(int argc, char** argv) { return corvane::flutter::FlutterHostMain(argc, argv); }
