// What `zpdf info` reports of a document without loading its pages: each page's boxes and
// rotation read from its dictionary, and the document's version and encryption.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "engine/engine.h"

namespace zpdf::engine {

// A rectangle in default user space units, normalised so that x0 <= x1 and y0 <= y1.
struct Box {
    double x0 = 0;
    double y0 = 0;
    double x1 = 0;
    double y1 = 0;
    double Width() const { return x1 - x0; }
    double Height() const { return y1 - y0; }
    bool operator==(const Box&) const = default;
};

// The boxes of one page, inherited ones resolved, and its rotation.
struct PageGeometry {
    Box media;
    Box crop;   // the CropBox, or the MediaBox when the page has none
    Box bleed;  // each of these three defaults to the CropBox
    Box trim;
    Box art;
    Box visible;             // the CropBox clipped to the MediaBox: what a viewer shows
    int rotation = 0;        // 0, 90, 180 or 270, clockwise
    double user_unit = 1.0;  // size of a unit in points
    // The visible box's size in points, after the rotation.
    double Width() const;
    double Height() const;
};

struct EncryptionFacts {
    bool encrypted = false;
    std::string filter;  // "Standard", "Adobe.PubSec", ...
    std::string method;  // "RC4-40", "RC4-128", "AES-128", "AES-256" or "unknown"
    int version = 0;     // /V
    int revision = 0;    // /R (standard security only)
    // Certificate security: the recipients named in all the envelopes; -1 when they cannot be
    // counted.
    int recipients = 0;
};

// The boxes and rotation of page `index` (0-based), from the page dictionary found through the
// document's page number cache: the page is neither loaded nor looked up from the root of the
// page tree. Throws EngineError (Page) for an index outside the document.
PageGeometry ReadPageGeometry(Document& document, int index);

// The same for the pages `indexes` (0-based), in one pass: the page tree nodes above the pages
// are held while the page objects read so far are let go every so often, so a long document is
// read in flat memory without parsing its large tree nodes again. `out` gets one entry per
// index. Throws EngineError (Page) for an index outside the document.
void ReadPageGeometries(Document& document, const std::vector<int>& indexes,
                        std::vector<PageGeometry>* out);

// "1.7", "2.0": the version in the header, raised by the catalog's /Version.
std::string PdfVersion(Document& document);
EncryptionFacts ReadEncryption(Document& document);

// The engine's own version, as it names its release.
std::string EngineVersion();

}  // namespace zpdf::engine
