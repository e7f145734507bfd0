// The content element: its 30-byte record and dirty rules, failing streams, the link to the
// host's object collections, and drawing through its content object.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cli/sample_pdf.h"
#include "content_element/content_element.h"
#include "platform/byte_stream.h"
#include "platform/raster.h"
#include "support/fault_stream.h"
#include "support/test_support.h"

namespace zpdf {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Mapping = RasterDeviceContext::Mapping;

using test::HexBytes;

Bytes Rec(std::int32_t id, std::int32_t page, std::int32_t left, std::int32_t top,
          std::int32_t right, std::int32_t bottom, VariantBool aspect, std::uint32_t version = 1) {
    Bytes out;
    auto put = [&](std::uint32_t v, int size) {
        for (int i = 0; i < size; ++i) out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
    };
    put(version, 4);
    for (std::int32_t v : {id, page, left, top, right, bottom})
        put(static_cast<std::uint32_t>(v), 4);
    put(static_cast<std::uint16_t>(aspect), 2);
    return out;
}
const Bytes kDefaultRecord = Rec(0, 1, 0, 0, 0, 0, -1);

Bytes SaveBytes(CZPdfContentElement& element, bool clear = false) {
    MemoryByteStream stream;
    EXPECT_EQ(element.Save(stream, clear), hr::kOk);
    return stream.Bytes();
}
HResult LoadBytes(CZPdfContentElement& element, const Bytes& bytes) {
    MemoryByteStream stream(bytes);
    return element.Load(stream);
}

ContentObjectRef NewObject() {
    return std::make_shared<CZPdfContentObject>();
}

// One of the host's collections: a map, and the calls it received.
class FakeCollection final : public ObjectCollections {
  public:
    std::map<std::int32_t, ContentObjectRef> objects;
    std::int32_t next_id = 0;  // the identifier Add hands out; 0: Add fails
    std::string calls;

    HResult Lookup(std::int32_t id, ContentObjectRef* found) override {
        Log("lookup " + std::to_string(id));
        const auto it = objects.find(id);
        if (it == objects.end()) return hr::kInvalidArg;
        *found = it->second;
        return hr::kOk;
    }
    HResult Add(const ContentObjectRef&, std::int32_t* id) override {
        Log("add");
        if (next_id == 0) return hr::kFail;
        *id = next_id;
        return hr::kOk;
    }

  private:
    void Log(const std::string& call) { calls += (calls.empty() ? "" : ", ") + call; }
};

TEST(Element, FreshElementRecord) {
    CZPdfContentElement element;
    EXPECT_EQ(element.IsDirty(), hr::kOk);
    // Version 1, ObjectId 0, page 1, an empty rectangle, aspect ratio kept (-1).
    const Bytes expected =
        HexBytes("01000000 00000000 01000000 00000000 00000000 00000000 00000000 FFFF");
    EXPECT_EQ(SaveBytes(element), expected);
    EXPECT_EQ(expected, kDefaultRecord);
    EXPECT_EQ(expected.size(), CZPdfContentElement::kRecordSize);
    std::uint64_t size = 0;
    EXPECT_EQ(element.GetSizeMax(&size), hr::kOk);
    EXPECT_EQ(size, 4u) << "the host's size hint stays at the version field";
}

// Each change to a clean element: whether it makes the element dirty, and the record it saves.
TEST(Element, ChangesRecordsAndDirtyRules) {
    const ContentObjectRef a = NewObject();
    const auto load_id_9 = [](CZPdfContentElement& e) { LoadBytes(e, Rec(9, 1, 0, 0, 0, 0, -1)); };
    struct Case {
        const char* name;
        std::function<void(CZPdfContentElement&)> setup;  // before the element is made clean
        std::function<void(CZPdfContentElement&)> change;
        bool dirty;
        Bytes record;
    } cases[] = {
        {"nothing", nullptr, nullptr, false, kDefaultRecord},
        {"position", nullptr, [](auto& e) { e.SetPosition(10, 20, 30, 40); }, true,
         HexBytes("01000000 00000000 01000000 0A000000 14000000 28000000 3C000000 FFFF")},
        {"negative width flips the rectangle", nullptr,
         [](auto& e) { e.SetPosition(100, 50, -20, 10); }, true, Rec(0, 1, 80, 50, 100, 60, -1)},
        {"negative coordinates and height", nullptr, [](auto& e) { e.SetPosition(-5, -7, 3, -2); },
         true, HexBytes("01000000 00000000 01000000 FBFFFFFF F7FFFFFF FEFFFFFF F9FFFFFF FFFF")},
        {"same position again", [](auto& e) { e.SetPosition(1, 2, 3, 4); },
         [](auto& e) { e.SetPosition(1, 2, 3, 4); }, true, Rec(0, 1, 1, 2, 4, 6, -1)},
        {"page", nullptr, [](auto& e) { e.put_Page(7); }, false, Rec(0, 7, 0, 0, 0, 0, -1)},
        {"page out of any range", nullptr, [](auto& e) { e.put_Page(-3); }, false,
         Rec(0, -3, 0, 0, 0, 0, -1)},
        {"aspect, same value", nullptr, [](auto& e) { e.put_MaintainAspectRatio(-1); }, false,
         kDefaultRecord},
        {"aspect off", nullptr, [](auto& e) { e.put_MaintainAspectRatio(0); }, true,
         Rec(0, 1, 0, 0, 0, 0, 0)},
        {"aspect 1 is not -1", nullptr, [](auto& e) { e.put_MaintainAspectRatio(1); }, true,
         Rec(0, 1, 0, 0, 0, 0, 1)},
        {"object bound", load_id_9, [&](auto& e) { e.put_PdfObject(a); }, true, kDefaultRecord},
        {"same object again forgets its identifier",
         [&](auto& e) {
             e.put_PdfObject(a);
             load_id_9(e);
         },
         [&](auto& e) { e.put_PdfObject(a); }, true, kDefaultRecord},
        {"null over null", load_id_9, [](auto& e) { e.put_PdfObject(nullptr); }, true,
         kDefaultRecord},
        {"InitNew resets nothing", [](auto& e) { e.SetPosition(1, 2, 3, 4); },
         [](auto& e) { e.InitNew(); }, true, Rec(0, 1, 1, 2, 4, 6, -1)},
    };
    for (const Case& c : cases) {
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
        HexBytes("01000000 FBFFFFFF 03000000 50000000 32000000 64000000 3C000000 0000");
    const Bytes before = Rec(11, 0x11223344, 1, 2, 3, 4, 1);
    // Version, ObjectId and the low two bytes of Page.
    const Bytes cut = HexBytes("01000000 FBFFFFFF AABB");
    struct Case {
        const char* name;
        Bytes record;
        HResult result;
        Bytes after;  // the record the element then saves
    } cases[] = {
        {"full record", full, hr::kOk, full},
        // The fields take what the stream delivers; the rest keep their values.
        {"record ending inside the page", cut, hr::kOk, Rec(-5, 0x1122BBAA, 1, 2, 3, 4, 1)},
        {"version 2", Rec(-5, 3, 80, 50, 100, 60, 0, 2), hr::kUnexpected, before},
        {"version 0", Rec(-5, 3, 80, 50, 100, 60, 0, 0), hr::kUnexpected, before},
        {"empty stream", {}, hr::kUnexpected, before},
    };
    for (const Case& c : cases) {
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

// The rectangle as placement and as bounds; no output is written unless all have a place.
TEST(Element, Getters) {
    CZPdfContentElement element;
    element.SetPosition(100, 60, -20, -10);
    std::int32_t got[4] = {};
    ASSERT_EQ(element.GetPosition(&got[0], &got[1], &got[2], &got[3]), hr::kOk);
    EXPECT_EQ(std::vector(got, got + 4), (std::vector{80, 50, 20, 10}));
    ASSERT_EQ(element.GetBounds(&got[0], &got[1], &got[2], &got[3]), hr::kOk);
    EXPECT_EQ(std::vector(got, got + 4), (std::vector{80, 50, 100, 60}));
    for (int missing = 0; missing < 4; ++missing) {
        SCOPED_TRACE(missing);
        std::int32_t values[4] = {-9, -9, -9, -9};
        std::int32_t* out[4] = {&values[0], &values[1], &values[2], &values[3]};
        out[missing] = nullptr;
        EXPECT_EQ(element.GetPosition(out[0], out[1], out[2], out[3]), hr::kPointer);
        EXPECT_EQ(element.GetBounds(out[0], out[1], out[2], out[3]), hr::kPointer);
        EXPECT_TRUE(std::all_of(values, values + 4, [](std::int32_t v) { return v == -9; }));
    }
    EXPECT_EQ(element.get_MaintainAspectRatio(nullptr), hr::kPointer);
    EXPECT_EQ(element.get_Page(nullptr), hr::kPointer);
    EXPECT_EQ(element.get_PdfObject(nullptr), hr::kPointer);
    EXPECT_EQ(element.GetSizeMax(nullptr), hr::kPointer);
}

TEST(Element, HoldsItsObjectUntilUnbound) {
    ContentObjectRef a = NewObject();
    CZPdfContentElement element;
    ASSERT_EQ(element.put_PdfObject(a), hr::kOk);
    EXPECT_EQ(a.use_count(), 2) << "held by the test and by the element";
    ASSERT_EQ(element.put_PdfObject(nullptr), hr::kOk);
    EXPECT_EQ(a.use_count(), 1) << "unbinding releases the object";
    EXPECT_EQ(element.get_PdfObject(&a), hr::kFalse);
    EXPECT_EQ(a, nullptr) << "the result is cleared when no object is bound";
}

// An element loaded with an identifier, resolved against the host's collections: the object it
// then holds, the identifier its record keeps, and what each collection was asked.
TEST(Element, ResolveObjectLink) {
    const ContentObjectRef a = NewObject(), b = NewObject(), none;
    constexpr std::int32_t kAbsent = -99;  // as a collection's next identifier: no collection
    struct Case {
        const char* name;
        std::int32_t id;                            // in the loaded record
        ContentObjectRef bound;                     // before the load
        ContentObjectRef in_primary, in_secondary;  // registered under `id`
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
        {"same object found", 7, a, a, none, 0, 0, a, 7, "lookup 7", ""},
        {"no id: registered in the secondary", 0, a, none, none, 3, -2, a, -2, "", "add"},
        {"secondary refuses: registered in the primary", 0, a, none, none, 3, 0, a, 3, "add",
         "add"},
        {"only a primary", 0, a, none, none, 3, kAbsent, a, 3, "add", ""},
        {"no id and no object", 0, none, none, none, 3, -2, none, 0, "", ""},
        {"no collections", 0, a, none, none, kAbsent, kAbsent, a, 0, "", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        CZPdfContentElement element;
        element.put_PdfObject(c.bound);
        ASSERT_EQ(LoadBytes(element, Rec(c.id, 1, 0, 0, 0, 0, -1)), hr::kOk);
        FakeCollection primary, secondary;
        if (c.in_primary) primary.objects[c.id] = c.in_primary;
        if (c.in_secondary) secondary.objects[c.id] = c.in_secondary;
        primary.next_id = c.primary_next;
        secondary.next_id = c.secondary_next;
        EXPECT_EQ(element.ResolveObjectLink(c.primary_next == kAbsent ? nullptr : &primary,
                                            c.secondary_next == kAbsent ? nullptr : &secondary),
                  hr::kOk);
        ContentObjectRef bound;
        EXPECT_EQ(element.get_PdfObject(&bound), c.expected ? hr::kOk : hr::kFalse);
        EXPECT_EQ(bound, c.expected);
        EXPECT_EQ(element.ObjectId(), c.expected_id);
        EXPECT_EQ(SaveBytes(element), Rec(c.expected_id, 1, 0, 0, 0, 0, -1));
        EXPECT_EQ(primary.calls, c.primary_calls);
        EXPECT_EQ(secondary.calls, c.secondary_calls);
        EXPECT_EQ(element.IsDirty(), hr::kFalse);
    }
}

// A raster device context that reports the calls it receives, and the mapping in force while
// pixels arrive.
class RecordingContext final : public DeviceContext {
  public:
    explicit RecordingContext(RasterDeviceContext& raster) : raster_(raster) {}
    bool LogicalToDevice(DevicePoint* points, int count) override {
        return Log("map " + std::to_string(count)).LogicalToDevice(points, count);
    }
    int SaveState() override { return Log("save").SaveState(); }
    bool RestoreState(int token) override { return Log("restore").RestoreState(token); }
    bool SetTextMapping() override { return Log("text").SetTextMapping(); }
    std::optional<DeviceRect> ClipBox() override { return raster_.ClipBox(); }
    bool DrawBgra(std::int32_t x, std::int32_t y, int width, int height, const std::uint8_t* pixels,
                  std::ptrdiff_t stride) override {
        if (!calls.ends_with("draw")) Log("draw");
        mapping_while_drawing = raster_.GetMapping();
        return raster_.DrawBgra(x, y, width, height, pixels, stride);
    }

    std::string calls;
    Mapping mapping_while_drawing;

  private:
    RasterDeviceContext& Log(const std::string& call) {
        calls += (calls.empty() ? "" : ", ") + call;
        return raster_;
    }
    RasterDeviceContext& raster_;
};

std::vector<std::int32_t> Values(const DeviceRect& r) {
    return {r.left, r.top, r.right, r.bottom};
}
std::vector<std::int32_t> Values(const Mapping& m) {
    return {m.window_origin.x, m.window_origin.y, m.viewport_origin.x, m.viewport_origin.y,
            m.window_extent.x, m.window_extent.y, m.viewport_extent.x, m.viewport_extent.y};
}

// The smallest rectangle holding every dark pixel; empty when there is none.
DeviceRect DarkArea(const RasterDeviceContext& dc) {
    DeviceRect area{dc.Width(), dc.Height(), 0, 0};
    for (int y = 0; y < dc.Height(); ++y) {
        for (int x = 0; x < dc.Width(); ++x) {
            if (dc.Pixel(x, y)[0] >= 128) continue;
            area = {std::min(area.left, x), std::min(area.top, y), std::max(area.right, x + 1),
                    std::max(area.bottom, y + 1)};
        }
    }
    return area.IsEmpty() ? DeviceRect{} : area;
}

TEST(Element, DrawsItsPageIntoTheMappedRectangle) {
    // Page 1 is white, page 2 black all over.
    std::vector<samples::SamplePage> pages(2);
    for (auto& page : pages) page.width = page.height = 100;
    pages[1].content = samples::FilledRect(0, 0, 100, 100);
    const auto file = test::ScratchDir() / "pages.pdf";
    ASSERT_TRUE(samples::WriteFile(file, samples::BuildPdf(pages)));
    const ContentObjectRef doc = NewObject();
    ASSERT_EQ(doc->SetPdfDocument(FromPath(file), 0, u""), hr::kOk);
    const ContentObjectRef no_doc = NewObject();

    const std::string drawn = "map 3, save, text, draw, restore";
    const std::string not_drawn = "map 3, save, text, restore";
    const Mapping one, half{{0, 0}, {0, 0}, {2, 2}, {1, 1}},
        per_axis{{0, 0}, {0, 0}, {1, 4}, {2, 1}}, moved{{4, 6}, {0, 0}, {1, 1}, {1, 1}};
    const DeviceRect inside{10, 20, 60, 50}, none;
    struct Case {
        const char* name;
        Mapping mapping;
        std::int32_t left, top, width, height, page;
        ContentObjectRef object;
        DeviceRect dark;
        std::string calls;
    } cases[] = {
        {"one to one", one, 10, 20, 50, 30, 2, doc, inside, drawn},
        {"half size", half, 20, 40, 100, 60, 2, doc, inside, drawn},
        {"scaled per axis", per_axis, 5, 80, 25, 120, 2, doc, inside, drawn},
        // The object draws the page rectangle in device pixels, given from the device origin.
        {"window origin moved", moved, 10, 20, 50, 30, 2, doc, inside, drawn},
        {"flipped by a negative size", one, 60, 50, -50, -30, 2, doc, inside, drawn},
        {"white page", one, 10, 20, 50, 30, 1, doc, none, drawn},
        {"page that does not exist", one, 10, 20, 50, 30, 3, doc, none, not_drawn},
        // The element still does its part; the object has nothing to draw.
        {"object without a document", one, 10, 20, 50, 30, 2, no_doc, none, not_drawn},
        {"no object bound", one, 10, 20, 50, 30, 2, nullptr, none, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        CZPdfContentElement element;
        element.put_PdfObject(c.object);
        element.SetPosition(c.left, c.top, c.width, c.height);
        element.put_Page(c.page);
        RasterDeviceContext raster(80, 80);
        raster.SetMapping(c.mapping);
        RecordingContext dc(raster);
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(element.DrawToDC(dc, 0), c.object ? hr::kOk : hr::kFalse);
        ::testing::internal::GetCapturedStderr();
        EXPECT_EQ(dc.calls, c.calls);
        EXPECT_EQ(Values(DarkArea(raster)), Values(c.dark));
        if (c.calls == drawn) {
            EXPECT_EQ(
                Values(dc.mapping_while_drawing),
                Values(Mapping{c.mapping.window_origin, c.mapping.viewport_origin, {1, 1}, {1, 1}}))
                << "the page is drawn in the text mapping";
        }
        EXPECT_EQ(Values(raster.GetMapping()), Values(c.mapping)) << "the mapping is restored";
        EXPECT_EQ(raster.SavedStates(), 0);
    }
}

}  // namespace
}  // namespace zpdf
