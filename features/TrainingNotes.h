// TrainingNotes — the ordered lines of free text that tell a model's history.
#pragma once

#include <string>
#include <vector>

#include "features/Export.h"

// How a note line looks in a text model file, known to its reader, its writer
// and the notes themselves.
namespace mlnn {
inline constexpr char kNotePrefix[] = "# ";          // stands before every note line
inline constexpr char kPropertyPrefix[] = "# NVP ";  // marks a line that holds a property
}  // namespace mlnn

class MLNN_EXPORT TrainingNotes {
 public:
  // The stored lines, oldest first, without the "# " that stands before them in a file.
  std::vector<std::string> lines;

  // New notes have no lines; copies have the other's, and what was moved from has none.
  TrainingNotes();
  TrainingNotes(const TrainingNotes& other);
  TrainingNotes(TrainingNotes&& other) noexcept;
  TrainingNotes& operator=(const TrainingNotes& other);
  TrainingNotes& operator=(TrainingNotes&& other) noexcept;

  // Appends one line as a model file has it: one leading "# " is removed, a line
  // without it is stored as it is. A property line ("# NVP ...") is not stored,
  // because the model's properties hold it and write it again. So what the text
  // writer writes, the text reader reads into the same notes.
  void addString(const std::string& line);

  // Records that a randomly initialised layer was added.
  // `layerCount` is the number of layers after the addition.
  void addRndLayer(int layerCount, float initScale);
};
