// The calls of libxml2 that read and free documents, watched: the binary that this is compiled into
// has them in front of libxml2's own.
#pragma once

#include <string>
#include <vector>

// The calls since the latest ForgetXmlCalls, in their order, as in
// "xmlReadMemory noname.xml (null) 96", "xmlFreeDoc", "xmlFreeDoc (null)", "xmlCleanupParser".
std::vector<std::string> XmlCalls();
void ForgetXmlCalls();
