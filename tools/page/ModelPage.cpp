#include "tools/page/ModelPage.h"

#include <string>

#include "features/Version.h"
#include "tools/page/DifferenceSection.h"
#include "tools/page/LayerSections.h"
#include "tools/page/Markup.h"
#include "tools/page/ModelSections.h"
#include "tools/page/PageParts.h"
#include "tools/page/PageStyle.h"
#include "tools/page/RecordingSection.h"

namespace mlnn {
namespace {

class Page {
 public:
  Page(std::ostream& out, const PageSubject& subject, const Watch& watch)
      : page_(out), subject_(subject), watch_(watch) {}

  void write() {
    page_.documentType();
    const auto html =
        page_.open("html", {{"xmlns", "http://www.w3.org/1999/xhtml"}, {"lang", "en"}});
    {
      const auto head = page_.open("head");
      writeStyle(page_);
      page_.element("title", subject_.file.name + " - a model");
    }
    const auto body = page_.open("body");
    page_.element("a", {{"class", "skip"}, {"href", "#content"}}, "To the content");
    writeHeader();
    {
      const auto main = page_.open("main", {{"id", "content"}});
      writeSections();
    }
    page_.element("footer", "Made by mlnn " MLNN_VERSION_STRING
                            " from the files alone: the same "
                            "files make the same page.");
  }

 private:
  void writeHeader() {
    const auto header = page_.open("header");
    page_.element("h1", subject_.file.name);
    page_.element("p", {{"class", "lead"}}, subject_.file.model.debug_description());
    const auto nav = page_.open("nav", {{"aria-label", "Contents"}});
    const auto list = page_.open("ul");
    link("#about", "About");
    link("#network", "Network");
    link("#suspicions", "Suspicions");
    if (subject_.recordings != nullptr) link("#recordings", "Recordings");
    if (subject_.diff != nullptr) link("#differences", "Differences");
    link("#training", "Training");
    link("#layers", "Layers");
    link("#quantisation", "Quantisation");
    link("#needs", "Size and work");
    link("#properties", "Properties");
    link("#notes", "Notes");
  }

  void link(Literal address, Literal text) {
    const auto item = page_.open("li");
    page_.element("a", {{"href", address.text()}}, text.text());
  }

  void writeSections() {
    const ModelFile& file = subject_.file;
    writeAbout(page_, file);
    writeNetworkSection(page_, file.model);
    writeSuspicions(page_, file);
    if (subject_.recordings != nullptr) writeRecordings(page_, *subject_.recordings);
    if (subject_.diff != nullptr) writeDifferences(page_, subject_);
    writeTraining(page_, file.model);
    writeLayers(page_, file.model, subject_.recordings, watch_);
    writeQuantisation(page_, file.model, subject_.rounding, watch_);
    writeNeeds(page_, file.model);
    writeProperties(page_, file.model);
    writeNotes(page_, file.model);
  }

  Markup page_;
  const PageSubject& subject_;
  const Watch& watch_;
};

}  // namespace

void writePage(std::ostream& out, const PageSubject& subject, const Watch& watch) {
  Page(out, subject, watch).write();
}

}  // namespace mlnn
