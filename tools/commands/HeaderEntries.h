// What the head of a text model file can hold: one note a line, one property a line.
#pragma once

#include <string>

namespace mlnn {

// Make sure that a note, and a property, read back from a text as they are: a line feed would
// end the line, a blank ends a property's name, and some notes mean something to the reader.
// Throw: UsageError that says why not.
void checkNote(const std::string& note);
void checkProperty(const std::string& key, const std::string& value);

}  // namespace mlnn
