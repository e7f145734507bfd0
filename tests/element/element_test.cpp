// The content element: its 30-byte record and dirty rules, failing streams, the link to the
// host's object collections, and drawing through its content object.
#include <gtest/gtest.h>

#include <array>
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
using Element = CZPdfContentElement;

// A record as the element lays it out: version, ObjectId, page, rectangle, aspect ratio.
Bytes Rec(std::int32_t id, std::int32_t page, std::int32_t left, std::int32_t top,
          std::int32_t right, std::int32_t bottom, VariantBool aspect = -1, std::int32_t ver = 1) {
    Bytes out;
    for (std::int32_t v : {ver, id, page, left, top, right, bottom, std::int32_t{aspect}})
        for (int i = 0; i < (out.size() < 28 ? 4 : 2); ++i) out.push_back(v >> (8 * i) & 0xFF);
    return out;
}
const Bytes kDefaultRecord = Rec(0, 1, 0, 0, 0, 0);

Bytes SaveBytes(Element& element, bool clear = false) {
    MemoryByteStream stream;
    EXPECT_EQ(element.Save(stream, clear), hr::kOk);
    return stream.Bytes();
}
HResult LoadBytes(Element& element, const Bytes& bytes) {
    MemoryByteStream stream(bytes);
    return element.Load(stream);
}
constexpr HResult Dirty(bool dirty) {
    return dirty ? hr::kOk : hr::kFalse;
}

// Each change to an element just loaded: whether it makes it dirty, and the record it saves.
TEST(Element, ChangesRecordsAndDirtyRules) {
    const auto a = std::make_shared<CZPdfContentObject>();
    const std::tuple<const char*, std::function<void(Element&)>, bool, Bytes> cases[] = {
        {"negative sizes flip", [](auto& e) { e.SetPosition(100, -7, -20, -2); }, true,
         Rec(9, 1, 80, -9, 100, -7)},
        {"same position", [](auto& e) { e.SetPosition(1, 2, 3, 4); }, true, Rec(9, 1, 1, 2, 4, 6)},
        {"page", [](auto& e) { e.put_Page(7); }, false, Rec(9, 7, 1, 2, 4, 6)},
        {"same aspect", [](auto& e) { e.put_MaintainAspectRatio(-1); }, false,
         Rec(9, 1, 1, 2, 4, 6)},
        {"aspect 1", [](auto& e) { e.put_MaintainAspectRatio(1); }, true, Rec(9, 1, 1, 2, 4, 6, 1)},
        {"object bound", [&](auto& e) { e.put_PdfObject(a); }, true, Rec(0, 1, 1, 2, 4, 6)},
        {"InitNew resets nothing", [](auto& e) { e.InitNew(); }, true, Rec(9, 1, 1, 2, 4, 6)},
    };
    for (const auto& [name, change, dirty, record] : cases) {
        Element element;
        ASSERT_EQ(LoadBytes(element, Rec(9, 1, 1, 2, 4, 6)), hr::kOk);
        change(element);
        EXPECT_EQ(element.IsDirty(), Dirty(dirty)) << name;
        EXPECT_EQ(SaveBytes(element), record) << name;
        EXPECT_EQ(element.IsDirty(), Dirty(dirty)) << name << ": saving without clearing keeps it";
    }
}

TEST(Element, LoadedRecords) {
    const Bytes before = Rec(11, 0x11223344, 1, 2, 3, 4, 1);
    // Each record, the result of loading it, and the record the element then saves.
    const std::tuple<const char*, Bytes, HResult, Bytes> cases[] = {
        {"full record",
         test::HexBytes("01000000 FBFFFFFF 03000000 50000000 32000000 64000000 3C000000 0000"),
         hr::kOk, Rec(-5, 3, 80, 50, 100, 60, 0)},
        // The fields take what the stream delivers; the rest keep their values.
        {"ends inside the page", test::HexBytes("01000000 FBFFFFFF AABB"), hr::kOk,
         Rec(-5, 0x1122BBAA, 1, 2, 3, 4, 1)},
        {"version 2", Rec(-5, 3, 80, 50, 100, 60, 0, 2), hr::kUnexpected, before},
        {"version 0", Rec(-5, 3, 80, 50, 100, 60, 0, 0), hr::kUnexpected, before},
    };
    for (const auto& [name, record, result, after] : cases) {
        Element element;
        ASSERT_EQ(LoadBytes(element, before), hr::kOk);
        element.InitNew();
        EXPECT_EQ(LoadBytes(element, record), result) << name;
        EXPECT_EQ(SaveBytes(element), after) << name;
        EXPECT_EQ(element.IsDirty(), Dirty(result != hr::kOk)) << name;
    }
}

// A stream whose k-th write or read fails, for every k.
TEST(Element, FailingStreamCalls) {
    const Bytes record = Rec(-5, 3, 80, 50, 100, 60, 0);
    Element source;
    ASSERT_EQ(LoadBytes(source, record), hr::kOk);
    source.InitNew();
    for (int k = 1; k <= 8; ++k) {
        SCOPED_TRACE(k);
        test::FaultInjectingStream out, in(record);
        out.FailWrite(k);
        EXPECT_EQ(source.Save(out, true), test::kStreamMediumFull);
        EXPECT_EQ(out.Writes(), k) << "nothing is written after the failure";
        EXPECT_EQ(source.IsDirty(), hr::kOk);
        Element element;
        in.FailRead(k);
        EXPECT_EQ(element.Load(in), test::kStreamReadFault);
        EXPECT_EQ(element.IsDirty(), hr::kOk);
    }
}

// A fresh element; the rectangle as placement and as bounds; nothing is written through a null.
TEST(Element, Getters) {
    Element element;
    EXPECT_EQ(element.IsDirty(), hr::kOk);
    EXPECT_EQ(SaveBytes(element, true), kDefaultRecord);
    EXPECT_EQ(element.IsDirty(), hr::kFalse);
    std::uint64_t size = 0;
    EXPECT_EQ(element.GetSizeMax(&size), hr::kOk);
    EXPECT_EQ(size, 4u) << "the host's size hint stays at the version field";
    element.SetPosition(100, 60, -20, -10);
    std::int32_t v[4] = {};
    ASSERT_EQ(element.GetPosition(&v[0], &v[1], &v[2], &v[3]), hr::kOk);
    EXPECT_EQ(std::vector(v, v + 4), (std::vector{80, 50, 20, 10}));
    ASSERT_EQ(element.GetBounds(&v[0], &v[1], &v[2], &v[3]), hr::kOk);
    EXPECT_EQ(std::vector(v, v + 4), (std::vector{80, 50, 100, 60}));
    EXPECT_EQ(element.GetPosition(v, v, v, nullptr), hr::kPointer);
    EXPECT_EQ(element.GetBounds(nullptr, v, v, v), hr::kPointer);
    EXPECT_EQ(element.get_MaintainAspectRatio(nullptr), hr::kPointer);
    EXPECT_EQ(element.get_Page(nullptr), hr::kPointer);
    EXPECT_EQ(element.get_PdfObject(nullptr), hr::kPointer);
    EXPECT_EQ(element.GetSizeMax(nullptr), hr::kPointer);
    ContentObjectRef a = std::make_shared<CZPdfContentObject>();
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
    const ContentObjectRef no;
    constexpr std::int32_t kAbsent = -99;  // as a collection's next identifier: no collection
    const struct {
        const char* name;
        std::int32_t id;                   // in the loaded record
        ContentObjectRef bound, in1, in2;  // before the load; what each collection finds
        std::int32_t next1, next2, expected_id;
        ContentObjectRef expected;
        const char* calls;  // primary's, then the secondary's after a "|"
    } cases[] = {
        {"negative id: secondary", -5, a, a, b, 0, 0, -5, b, "|lookup -5"},
        {"positive id: primary", 7, no, a, b, 0, 0, 7, a, "lookup 7|"},
        {"negative id without secondary", -5, no, b, no, 0, kAbsent, -5, b, "lookup -5|"},
        {"positive id without primary: no lookup", 7, a, no, b, kAbsent, 0, 7, a, "|"},
        {"id that finds nothing unbinds", 7, a, no, no, 3, -2, 7, no, "lookup 7|"},
        {"no id: added to the secondary", 0, a, no, no, 3, -2, -2, a, "|add"},
        {"secondary refuses: added to the primary", 0, a, no, no, 3, 0, 3, a, "add|add"},
        {"only a primary", 0, a, no, no, 3, kAbsent, 3, a, "add|"},
        {"no id and no object", 0, no, no, no, 3, -2, 0, no, "|"},
        {"no collections", 0, a, no, no, kAbsent, kAbsent, 0, a, "|"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Element element;
        element.put_PdfObject(c.bound);
        ASSERT_EQ(LoadBytes(element, Rec(c.id, 1, 0, 0, 0, 0)), hr::kOk);
        FakeCollection one, two;
        std::tie(one.object, one.next_id, two.object, two.next_id) =
            std::tuple(c.in1, c.next1, c.in2, c.next2);
        EXPECT_EQ(element.ResolveObjectLink(c.next1 == kAbsent ? nullptr : &one,
                                            c.next2 == kAbsent ? nullptr : &two),
                  hr::kOk);
        ContentObjectRef bound;
        EXPECT_EQ(element.get_PdfObject(&bound), Dirty(c.expected != nullptr));
        EXPECT_EQ(bound, c.expected);
        EXPECT_EQ(SaveBytes(element), Rec(c.expected_id, 1, 0, 0, 0, 0));
        EXPECT_EQ(one.calls + "|" + two.calls, c.calls);
        EXPECT_EQ(element.IsDirty(), hr::kFalse);
    }
}

// A raster device context that notes the mapping in force while pixels arrive.
struct WatchedRaster final : DeviceContext {
    explicit WatchedRaster(RasterDeviceContext& r) : raster(r) {}
    bool LogicalToDevice(DevicePoint* p, int n) override { return raster.LogicalToDevice(p, n); }
    int SaveState() override { return raster.SaveState(); }
    bool RestoreState(int token) override { return raster.RestoreState(token); }
    bool SetTextMapping() override { return raster.SetTextMapping(); }
    std::optional<DeviceRect> ClipBox() override { return raster.ClipBox(); }
    bool DrawBgra(std::int32_t x, std::int32_t y, int width, int height, const std::uint8_t* pixels,
                  std::ptrdiff_t stride) override {
        seen = raster.GetMapping();
        return raster.DrawBgra(x, y, width, height, pixels, stride);
    }
    RasterDeviceContext& raster;
    std::optional<Mapping> seen;  // the mapping while drawing
};

bool Same(const Mapping& a, const Mapping& b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
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
    const DeviceRect in{10, 20, 60, 50}, none;
    // The mapping, the rectangle, the page and the object; where the page then comes out dark.
    const std::tuple<const char*, Mapping, std::array<std::int32_t, 5>, ContentObjectRef,
                     DeviceRect>
        cases[] = {
            {"half size", half, {20, 40, 100, 60, 2}, doc, in},
            // The object draws the page rectangle in device pixels, given from the device origin.
            {"window origin moved", moved, {10, 20, 50, 30, 2}, doc, in},
            // The element does its part; the object's failure is not the host's.
            {"page that does not exist", one, {10, 20, 50, 30, 3}, doc, none},
            {"no object bound", one, {10, 20, 50, 30, 2}, nullptr, none},
        };
    for (const auto& [name, mapping, at, object, dark] : cases) {
        SCOPED_TRACE(name);
        Element element;
        element.put_PdfObject(object);
        element.SetPosition(at[0], at[1], at[2], at[3]);
        element.put_Page(at[4]);
        RasterDeviceContext raster(80, 80);
        raster.SetMapping(mapping);
        WatchedRaster dc(raster);
        EXPECT_EQ(element.DrawToDC(dc, 0), Dirty(object != nullptr));
        int wrong = 0;  // pixels dark outside `dark` or light inside it
        for (int y = 0; y < 80; ++y)
            for (int x = 0; x < 80; ++x)
                wrong += (raster.Pixel(x, y)[0] < 128) !=
                         (x >= dark.left && x < dark.right && y >= dark.top && y < dark.bottom);
        EXPECT_EQ(wrong, 0);
        const Mapping text{mapping.window_origin, mapping.viewport_origin, {1, 1}, {1, 1}};
        EXPECT_EQ(dc.seen.has_value(), dark.right > 0);
        EXPECT_TRUE(!dc.seen || Same(*dc.seen, text)) << "the page is drawn in the text mapping";
        EXPECT_TRUE(Same(raster.GetMapping(), mapping)) << "the mapping is restored";
        EXPECT_EQ(raster.SavedStates(), 0);
    }
}

}  // namespace
}  // namespace zpdf
