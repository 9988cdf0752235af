// Links and loads what the program does, and does nothing: what a process costs here before any of
// our own code runs. The two look-ups keep the libraries in the program.

#include <cgicc/Cgicc.h>
#include <jni.h>
#include <libxml/parser.h>

#include <cstdlib>
#include <iostream>

int main(int argc, char**) {
  if (argc > 1) {
    const cgicc::Cgicc request(nullptr);
    xmlFreeDoc(xmlReadFile("/nowhere", nullptr, 0));
    return JNI_CreateJavaVM(nullptr, nullptr, nullptr);
  }
  std::cout << "Content-Type: text/html" << std::endl;
  return EXIT_SUCCESS;
}
