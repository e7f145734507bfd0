// The content element: its 30-byte record and dirty rules, failing streams, the link to the
// host's object collections, and drawing through its content object.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <tuple>

#include "cli/sample_pdf.h"
#include "content_element/content_element.h"
#include "platform/raster.h"
#include "support/fault_stream.h"
#include "support/test_support.h"

namespace zpdf {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Mapping = RasterDeviceContext::Mapping;

// A record as the element lays it out: version, ObjectId, page, rectangle, aspect ratio.
Bytes Rec(std::int32_t id, std::int32_t page, std::int32_t left, std::int32_t top,
          std::int32_t right, std::int32_t bottom, VariantBool aspect = -1,
          std::uint32_t version = 1) {
    Bytes out;
    const auto put = [&](std::uint32_t v, int size) {
        for (int i = 0; i < size; ++i) out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
    };
    put(version, 4);
    for (std::int32_t v : {id, page, left, top, right, bottom})
        put(static_cast<std::uint32_t>(v), 4);
    put(static_cast<std::uint16_t>(aspect), 2);
    return out;
}
// Version 1, ObjectId 0, page 1, an empty rectangle, aspect ratio kept (-1).
const Bytes kDefaultRecord =
    test::HexBytes("01000000 00000000 01000000 00000000 00000000 00000000 00000000 FFFF");

Bytes SaveBytes(CZPdfContentElement& element, bool clear = false) {
    MemoryByteStream stream;
    EXPECT_EQ(element.Save(stream, clear), hr::kOk);
    return stream.Bytes();
}
HResult LoadBytes(CZPdfContentElement& element, const Bytes& bytes) {
    MemoryByteStream stream(bytes);
    return element.Load(stream);
}

// Each change to a clean element: whether it makes the element dirty, and the record it saves.
TEST(Element, ChangesRecordsAndDirtyRules) {
    const auto a = std::make_shared<CZPdfContentObject>();
    const auto load_id_9 = [](CZPdfContentElement& e) { LoadBytes(e, Rec(9, 1, 0, 0, 0, 0)); };
    using Step = std::function<void(CZPdfContentElement&)>;
    const struct {
        const char* name;
        Step setup;  // before the element is made clean
        Step change;
        bool dirty;
        Bytes record;
    } cases[] = {
        {"nothing", nullptr, nullptr, false, kDefaultRecord},
        {"negative sizes flip the rectangle", nullptr,
         [](auto& e) { e.SetPosition(100, -7, -20, -2); }, true, Rec(0, 1, 80, -9, 100, -7)},
        {"same position again", [](auto& e) { e.SetPosition(1, 2, 3, 4); },
         [](auto& e) { e.SetPosition(1, 2, 3, 4); }, true, Rec(0, 1, 1, 2, 4, 6)},
        {"page", nullptr, [](auto& e) { e.put_Page(7); }, false, Rec(0, 7, 0, 0, 0, 0)},
        {"aspect, same value", nullptr, [](auto& e) { e.put_MaintainAspectRatio(-1); }, false,
         kDefaultRecord},
        {"aspect 1 is not -1", nullptr, [](auto& e) { e.put_MaintainAspectRatio(1); }, true,
         Rec(0, 1, 0, 0, 0, 0, 1)},
        {"object bound", load_id_9, [&](auto& e) { e.put_PdfObject(a); }, true, kDefaultRecord},
        {"null over null forgets the identifier", load_id_9,
         [](auto& e) { e.put_PdfObject(nullptr); }, true, kDefaultRecord},
        {"InitNew resets nothing", [](auto& e) { e.SetPosition(1, 2, 3, 4); },
         [](auto& e) { e.InitNew(); }, true, Rec(0, 1, 1, 2, 4, 6)},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        CZPdfContentElement element;
        if (c.setup) c.setup(element);
        SaveBytes(element, true);
        ASSERT_EQ(element.IsDirty(), hr::kFalse);
        if (c.change) c.change(element);
        EXPECT_EQ(element.IsDirty(), c.dirty ? hr::kOk : hr::kFalse);
        EXPECT_EQ(SaveBytes(element), c.record);
        EXPECT_EQ(element.IsDirty(), c.dirty ? hr::kOk : hr::kFalse)
            << "saving without clearing keeps the flag";
    }
}

TEST(Element, LoadedRecords) {
    // ObjectId -5, page 3, the rectangle 80, 50 - 100, 60, aspect ratio off.
    const Bytes full =
        test::HexBytes("01000000 FBFFFFFF 03000000 50000000 32000000 64000000 3C000000 0000");
    const Bytes before = Rec(11, 0x11223344, 1, 2, 3, 4, 1);
    const struct {
        const char* name;
        Bytes record;
        HResult result;
        Bytes after;  // the record the element then saves
    } cases[] = {
        {"full record", full, hr::kOk, full},
        // The fields take what the stream delivers; the rest keep their values.
        {"record ending inside the page", test::HexBytes("01000000 FBFFFFFF AABB"), hr::kOk,
         Rec(-5, 0x1122BBAA, 1, 2, 3, 4, 1)},
        {"version 2", Rec(-5, 3, 80, 50, 100, 60, 0, 2), hr::kUnexpected, before},
        {"version 0", Rec(-5, 3, 80, 50, 100, 60, 0, 0), hr::kUnexpected, before},
        {"empty stream", {}, hr::kUnexpected, before},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        CZPdfContentElement element;
        ASSERT_EQ(LoadBytes(element, before), hr::kOk);
        element.InitNew();
        EXPECT_EQ(LoadBytes(element, c.record), c.result);
        EXPECT_EQ(SaveBytes(element), c.after);
        EXPECT_EQ(element.IsDirty(), c.result == hr::kOk ? hr::kFalse : hr::kOk);
    }
}

// A stream whose k-th write or read fails, for every k.
TEST(Element, FailingStreamCalls) {
    const Bytes record = Rec(-5, 3, 80, 50, 100, 60, 0);
    CZPdfContentElement source;
    ASSERT_EQ(LoadBytes(source, record), hr::kOk);
    source.InitNew();
    for (int k = 1; k <= 8; ++k) {
        SCOPED_TRACE(k);
        const auto written = record.begin() + (k - 1) * 4;  // the fields before the failing call
        test::FaultInjectingStream out;
        out.FailWrite(k);
        EXPECT_EQ(source.Save(out, true), test::kStreamMediumFull);
        EXPECT_EQ(out.Writes(), k) << "nothing is written after the failure";
        EXPECT_EQ(out.Bytes(), Bytes(record.begin(), written));
        EXPECT_EQ(source.IsDirty(), hr::kOk);

        CZPdfContentElement element;
        test::FaultInjectingStream in(record);
        in.FailRead(k);
        EXPECT_EQ(element.Load(in), test::kStreamReadFault);
        // Fields read before the failure keep their new values.
        Bytes expected(record.begin(), written);
        expected.insert(expected.end(), kDefaultRecord.begin() + (k - 1) * 4, kDefaultRecord.end());
        EXPECT_EQ(SaveBytes(element), expected);
        EXPECT_EQ(element.IsDirty(), hr::kOk);
    }
}

// A fresh element; the rectangle as placement and as bounds; no output is written unless all
// have a place.
TEST(Element, Getters) {
    CZPdfContentElement element;
    EXPECT_EQ(element.IsDirty(), hr::kOk);
    EXPECT_EQ(SaveBytes(element), kDefaultRecord);
    std::uint64_t size = 0;
    EXPECT_EQ(element.GetSizeMax(&size), hr::kOk);
    EXPECT_EQ(size, 4u) << "the host's size hint stays at the version field";
    element.SetPosition(100, 60, -20, -10);
    std::int32_t v[4] = {};
    ASSERT_EQ(element.GetPosition(&v[0], &v[1], &v[2], &v[3]), hr::kOk);
    EXPECT_EQ(std::vector(v, v + 4), (std::vector{80, 50, 20, 10}));
    ASSERT_EQ(element.GetBounds(&v[0], &v[1], &v[2], &v[3]), hr::kOk);
    EXPECT_EQ(std::vector(v, v + 4), (std::vector{80, 50, 100, 60}));
    for (int missing = 0; missing < 4; ++missing) {
        SCOPED_TRACE(missing);
        std::int32_t values[4] = {-9, -9, -9, -9};
        std::int32_t* out[4] = {&values[0], &values[1], &values[2], &values[3]};
        out[missing] = nullptr;
        EXPECT_EQ(element.GetPosition(out[0], out[1], out[2], out[3]), hr::kPointer);
        EXPECT_EQ(element.GetBounds(out[0], out[1], out[2], out[3]), hr::kPointer);
        EXPECT_EQ(std::vector(values, values + 4), std::vector(4, -9));
    }
    EXPECT_EQ(element.get_MaintainAspectRatio(nullptr), hr::kPointer);
    EXPECT_EQ(element.get_Page(nullptr), hr::kPointer);
    EXPECT_EQ(element.get_PdfObject(nullptr), hr::kPointer);
    EXPECT_EQ(element.GetSizeMax(nullptr), hr::kPointer);
}

TEST(Element, HoldsItsObjectUntilUnbound) {
    ContentObjectRef a = std::make_shared<CZPdfContentObject>();
    CZPdfContentElement element;
    ASSERT_EQ(element.put_PdfObject(a), hr::kOk);
    ASSERT_EQ(element.put_PdfObject(nullptr), hr::kOk);
    EXPECT_EQ(a.use_count(), 1) << "unbinding releases the object";
    EXPECT_EQ(element.get_PdfObject(&a), hr::kFalse);
    EXPECT_EQ(a, nullptr) << "the result is cleared when no object is bound";
}

// One of the host's collections: what it finds under any identifier, and the calls it received.
struct FakeCollection final : ObjectCollections {
    ContentObjectRef object;
    std::int32_t next_id = 0;  // the identifier Add hands out; 0: Add fails
    std::string calls;

    HResult Lookup(std::int32_t id, ContentObjectRef* found) override {
        calls += "lookup " + std::to_string(id);
        *found = object;
        return object ? hr::kOk : hr::kInvalidArg;
    }
    HResult Add(const ContentObjectRef&, std::int32_t* id) override {
        calls += "add";
        if (next_id != 0) *id = next_id;
        return next_id != 0 ? hr::kOk : hr::kFail;
    }
};

// An element loaded with an identifier, resolved against the host's collections: the object it
// then holds, the identifier its record keeps, and what each collection was asked.
TEST(Element, ResolveObjectLink) {
    const auto a = std::make_shared<CZPdfContentObject>();
    const auto b = std::make_shared<CZPdfContentObject>();
    const ContentObjectRef none;
    constexpr std::int32_t kAbsent = -99;  // as a collection's next identifier: no collection
    const struct {
        const char* name;
        std::int32_t id;                            // in the loaded record
        ContentObjectRef bound;                     // before the load
        ContentObjectRef in_primary, in_secondary;  // what each finds
        std::int32_t primary_next, secondary_next;
        ContentObjectRef expected;
        std::int32_t expected_id;
        const char *primary_calls, *secondary_calls;
    } cases[] = {
        {"negative id: secondary", -5, a, a, b, 0, 0, b, -5, "", "lookup -5"},
        {"positive id: primary", 7, none, a, b, 0, 0, a, 7, "lookup 7", ""},
        {"negative id without secondary: primary", -5, none, b, none, 0, kAbsent, b, -5,
         "lookup -5", ""},
        {"positive id without primary: no lookup", 7, a, none, b, kAbsent, 0, a, 7, "", ""},
        {"id that finds nothing unbinds", 7, a, none, none, 3, -2, none, 7, "lookup 7", ""},
        {"no id: registered in the secondary", 0, a, none, none, 3, -2, a, -2, "", "add"},
        {"secondary refuses: registered in the primary", 0, a, none, none, 3, 0, a, 3, "add",
         "add"},
        {"only a primary", 0, a, none, none, 3, kAbsent, a, 3, "add", ""},
        {"no id and no object", 0, none, none, none, 3, -2, none, 0, "", ""},
        {"no collections", 0, a, none, none, kAbsent, kAbsent, a, 0, "", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        CZPdfContentElement element;
        element.put_PdfObject(c.bound);
        ASSERT_EQ(LoadBytes(element, Rec(c.id, 1, 0, 0, 0, 0)), hr::kOk);
        FakeCollection primary, secondary;
        std::tie(primary.object, primary.next_id) = std::pair(c.in_primary, c.primary_next);
        std::tie(secondary.object, secondary.next_id) = std::pair(c.in_secondary, c.secondary_next);
        EXPECT_EQ(element.ResolveObjectLink(c.primary_next == kAbsent ? nullptr : &primary,
                                            c.secondary_next == kAbsent ? nullptr : &secondary),
                  hr::kOk);
        ContentObjectRef bound;
        EXPECT_EQ(element.get_PdfObject(&bound), c.expected ? hr::kOk : hr::kFalse);
        EXPECT_EQ(bound, c.expected);
        EXPECT_EQ(element.ObjectId(), c.expected_id);
        EXPECT_EQ(SaveBytes(element), Rec(c.expected_id, 1, 0, 0, 0, 0));
        EXPECT_EQ(primary.calls, c.primary_calls);
        EXPECT_EQ(secondary.calls, c.secondary_calls);
        EXPECT_EQ(element.IsDirty(), hr::kFalse);
    }
}

// A raster device context that notes the mapping in force while pixels arrive.
class WatchedRaster final : public DeviceContext {
  public:
    explicit WatchedRaster(RasterDeviceContext& raster) : raster_(raster) {}
    bool LogicalToDevice(DevicePoint* p, int n) override { return raster_.LogicalToDevice(p, n); }
    int SaveState() override { return raster_.SaveState(); }
    bool RestoreState(int token) override { return raster_.RestoreState(token); }
    bool SetTextMapping() override { return raster_.SetTextMapping(); }
    std::optional<DeviceRect> ClipBox() override { return raster_.ClipBox(); }
    bool DrawBgra(std::int32_t x, std::int32_t y, int width, int height, const std::uint8_t* pixels,
                  std::ptrdiff_t stride) override {
        mapping_while_drawing = raster_.GetMapping();
        return raster_.DrawBgra(x, y, width, height, pixels, stride);
    }
    std::optional<Mapping> mapping_while_drawing;

  private:
    RasterDeviceContext& raster_;
};

bool Same(const Mapping& a, const Mapping& b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

// How many pixels are dark outside `dark` or light inside it.
int Mismatches(const RasterDeviceContext& dc, const DeviceRect& dark) {
    int wrong = 0;
    for (int y = 0; y < dc.Height(); ++y) {
        for (int x = 0; x < dc.Width(); ++x) {
            const bool inside =
                x >= dark.left && x < dark.right && y >= dark.top && y < dark.bottom;
            wrong += (dc.Pixel(x, y)[0] < 128) != inside;
        }
    }
    return wrong;
}

TEST(Element, DrawsItsPageIntoTheMappedRectangle) {
    // Page 1 is white, page 2 black all over.
    std::vector<samples::SamplePage> pages(2);
    for (auto& page : pages) page.width = page.height = 100;
    pages[1].content = samples::FilledRect(0, 0, 100, 100);
    const auto file = test::ScratchDir() / "pages.pdf";
    ASSERT_TRUE(samples::WriteFile(file, samples::BuildPdf(pages)));
    const auto doc = std::make_shared<CZPdfContentObject>();
    ASSERT_EQ(doc->SetPdfDocument(FromPath(file), 0, u""), hr::kOk);

    const Mapping one, half{{0, 0}, {0, 0}, {2, 2}, {1, 1}}, moved{{4, 6}, {0, 0}, {1, 1}, {1, 1}};
    const DeviceRect inside{10, 20, 60, 50}, none;
    const struct {
        const char* name;
        Mapping mapping;
        std::int32_t left, top, width, height, page;
        ContentObjectRef object;
        DeviceRect dark;
    } cases[] = {
        {"one to one", one, 10, 20, 50, 30, 2, doc, inside},
        {"half size", half, 20, 40, 100, 60, 2, doc, inside},
        // The object draws the page rectangle in device pixels, given from the device origin.
        {"window origin moved", moved, 10, 20, 50, 30, 2, doc, inside},
        {"flipped by a negative size", one, 60, 50, -50, -30, 2, doc, inside},
        // The element does its part; the object's failure is not the host's.
        {"page that does not exist", one, 10, 20, 50, 30, 3, doc, none},
        {"no object bound", one, 10, 20, 50, 30, 2, nullptr, none},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        CZPdfContentElement element;
        element.put_PdfObject(c.object);
        element.SetPosition(c.left, c.top, c.width, c.height);
        element.put_Page(c.page);
        RasterDeviceContext raster(80, 80);
        raster.SetMapping(c.mapping);
        WatchedRaster dc(raster);
        EXPECT_EQ(element.DrawToDC(dc, 0), c.object ? hr::kOk : hr::kFalse);
        EXPECT_EQ(Mismatches(raster, c.dark), 0);
        const Mapping text{c.mapping.window_origin, c.mapping.viewport_origin, {1, 1}, {1, 1}};
        EXPECT_EQ(dc.mapping_while_drawing.has_value(), c.dark.right > 0);
        EXPECT_TRUE(!dc.mapping_while_drawing || Same(*dc.mapping_while_drawing, text))
            << "the page is drawn in the text mapping";
        EXPECT_TRUE(Same(raster.GetMapping(), c.mapping)) << "the mapping is restored";
        EXPECT_EQ(raster.SavedStates(), 0);
    }
}

}  // namespace
}  // namespace zpdf
