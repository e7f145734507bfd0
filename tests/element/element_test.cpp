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
using Calls = std::vector<std::string>;

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

TEST(Element, FreshElementRecord) {
    CZPdfContentElement element;
    EXPECT_EQ(element.IsDirty(), hr::kOk);
    const Bytes expected = {0x01, 0x00, 0x00, 0x00,                          // version
                            0x00, 0x00, 0x00, 0x00,                          // ObjectId
                            0x01, 0x00, 0x00, 0x00,                          // Page
                            0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,  // left, top
                            0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,  // right, bottom
                            0xFF, 0xFF};                                     // aspect
    EXPECT_EQ(SaveBytes(element), expected);
    EXPECT_EQ(expected.size(), CZPdfContentElement::kRecordSize);
    std::uint64_t size = 0;
    EXPECT_EQ(element.GetSizeMax(&size), hr::kOk);
    EXPECT_EQ(size, 4u) << "the host's size hint stays at the version field";
}

// Each change to a clean element: whether it makes the element dirty, and the record it saves.
TEST(Element, ChangesRecordsAndDirtyRules) {
    const ContentObjectRef a = NewObject();
    struct Case {
        const char* name;
        std::function<void(CZPdfContentElement&)> setup;  // before the element is made clean
        std::function<void(CZPdfContentElement&)> change;
        bool dirty;
        Bytes record;
    } cases[] = {
        {"nothing", nullptr, nullptr, false, Rec(0, 1, 0, 0, 0, 0, -1)},
        {"position",
         nullptr,
         [](auto& e) { e.SetPosition(10, 20, 30, 40); },
         true,
         {0x01, 0,    0, 0, 0, 0,    0, 0, 0x01, 0,    0, 0, 0x0A, 0,    0,
          0,    0x14, 0, 0, 0, 0x28, 0, 0, 0,    0x3C, 0, 0, 0,    0xFF, 0xFF}},
        {"negative width flips the rectangle", nullptr,
         [](auto& e) { e.SetPosition(100, 50, -20, 10); }, true, Rec(0, 1, 80, 50, 100, 60, -1)},
        {"negative coordinates and height",
         nullptr,
         [](auto& e) { e.SetPosition(-5, -7, 3, -2); },
         true,
         {0x01, 0,    0,    0,    0,    0,    0,    0,    0x01, 0,
          0,    0,    0xFB, 0xFF, 0xFF, 0xFF, 0xF7, 0xFF, 0xFF, 0xFF,
          0xFE, 0xFF, 0xFF, 0xFF, 0xF9, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}},
        {"same position again", [](auto& e) { e.SetPosition(1, 2, 3, 4); },
         [](auto& e) { e.SetPosition(1, 2, 3, 4); }, true, Rec(0, 1, 1, 2, 4, 6, -1)},
        {"page", nullptr, [](auto& e) { e.put_Page(7); }, false, Rec(0, 7, 0, 0, 0, 0, -1)},
        {"page out of any range", nullptr, [](auto& e) { e.put_Page(-3); }, false,
         Rec(0, -3, 0, 0, 0, 0, -1)},
        {"aspect, same value", nullptr, [](auto& e) { e.put_MaintainAspectRatio(-1); }, false,
         Rec(0, 1, 0, 0, 0, 0, -1)},
        {"aspect off", nullptr, [](auto& e) { e.put_MaintainAspectRatio(0); }, true,
         Rec(0, 1, 0, 0, 0, 0, 0)},
        {"aspect 1 is not -1", nullptr, [](auto& e) { e.put_MaintainAspectRatio(1); }, true,
         Rec(0, 1, 0, 0, 0, 0, 1)},
        {"object bound", [](auto& e) { LoadBytes(e, Rec(9, 1, 0, 0, 0, 0, -1)); },
         [&](auto& e) { e.put_PdfObject(a); }, true, Rec(0, 1, 0, 0, 0, 0, -1)},
        {"same object again forgets its identifier",
         [&](auto& e) {
             e.put_PdfObject(a);
             LoadBytes(e, Rec(9, 1, 0, 0, 0, 0, -1));
         },
         [&](auto& e) { e.put_PdfObject(a); }, true, Rec(0, 1, 0, 0, 0, 0, -1)},
        {"null over null", [](auto& e) { LoadBytes(e, Rec(9, 1, 0, 0, 0, 0, -1)); },
         [](auto& e) { e.put_PdfObject(nullptr); }, true, Rec(0, 1, 0, 0, 0, 0, -1)},
        {"InitNew resets nothing", [](auto& e) { e.SetPosition(1, 2, 3, 4); },
         [](auto& e) { e.InitNew(); }, true, Rec(0, 1, 1, 2, 4, 6, -1)},
        {"registering with the host", [&](auto& e) { e.put_PdfObject(a); },
         [](auto& e) {
             struct Primary final : ObjectCollections {
                 HResult Lookup(std::int32_t, ContentObjectRef*) override { return hr::kFail; }
                 HResult Add(const ContentObjectRef&, std::int32_t* id) override {
                     *id = 4;
                     return hr::kOk;
                 }
             } primary;
             e.ResolveObjectLink(&primary, nullptr);
         },
         false, Rec(4, 1, 0, 0, 0, 0, -1)},
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
    const Bytes full = {0x01, 0x00, 0x00, 0x00, 0xFB, 0xFF, 0xFF, 0xFF,  // version, ObjectId -5
                        0x03, 0x00, 0x00, 0x00,                          // Page 3
                        0x50, 0x00, 0x00, 0x00, 0x32, 0x00, 0x00, 0x00,  // 80, 50
                        0x64, 0x00, 0x00, 0x00, 0x3C, 0x00, 0x00, 0x00,  // 100, 60
                        0x00, 0x00};                                     // aspect off
    const Bytes before = Rec(11, 0x11223344, 1, 2, 3, 4, 1);
    // Version, ObjectId and the low two bytes of Page.
    Bytes cut = Rec(-5, 0, 0, 0, 0, 0, 0);
    cut.resize(8);
    cut.insert(cut.end(), {0xAA, 0xBB});
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

    CZPdfContentElement element;
    ASSERT_EQ(LoadBytes(element, full), hr::kOk);
    std::int32_t left = 0, top = 0, width = 0, height = 0;
    ASSERT_EQ(element.GetPosition(&left, &top, &width, &height), hr::kOk);
    EXPECT_EQ((std::vector<std::int32_t>{left, top, width, height}),
              (std::vector<std::int32_t>{80, 50, 20, 10}));
    std::int32_t right = 0, bottom = 0;
    ASSERT_EQ(element.GetBounds(&left, &top, &right, &bottom), hr::kOk);
    EXPECT_EQ((std::vector<std::int32_t>{left, top, right, bottom}),
              (std::vector<std::int32_t>{80, 50, 100, 60}));
    EXPECT_EQ(element.ObjectId(), -5);
    ContentObjectRef bound = NewObject();
    EXPECT_EQ(element.get_PdfObject(&bound), hr::kFalse) << "a load binds no object";
    EXPECT_EQ(bound, nullptr);
}

// A stream whose k-th write or read fails, for every k.
TEST(Element, FailingStreamCalls) {
    const Bytes record = Rec(-5, 3, 80, 50, 100, 60, 0);
    CZPdfContentElement source;
    ASSERT_EQ(LoadBytes(source, record), hr::kOk);
    source.InitNew();
    for (int k = 1; k <= 8; ++k) {
        SCOPED_TRACE("write " + std::to_string(k));
        test::FaultInjectingStream stream;
        stream.FailWrite(k);
        EXPECT_EQ(source.Save(stream, true), test::kStreamMediumFull);
        EXPECT_EQ(stream.Writes(), k) << "nothing is written after the failure";
        EXPECT_EQ(stream.Bytes(), Bytes(record.begin(), record.begin() + (k - 1) * 4));
        EXPECT_EQ(source.IsDirty(), hr::kOk);
    }

    const Bytes old_record = Rec(0, 1, 0, 0, 0, 0, -1);
    for (int k = 1; k <= 8; ++k) {
        SCOPED_TRACE("read " + std::to_string(k));
        CZPdfContentElement element;
        test::FaultInjectingStream stream(record);
        stream.FailRead(k);
        EXPECT_EQ(element.Load(stream), test::kStreamReadFault);
        // Fields read before the failure keep their new values.
        Bytes expected(record.begin(), record.begin() + (k - 1) * 4);
        expected.insert(expected.end(), old_record.begin() + (k - 1) * 4, old_record.end());
        EXPECT_EQ(SaveBytes(element), expected);
        EXPECT_EQ(element.IsDirty(), hr::kOk);
    }
}

TEST(Element, NullOutputsWriteNothing) {
    CZPdfContentElement element;
    element.SetPosition(1, 2, 3, 4);
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

TEST(Element, PdfObjectBinding) {
    CZPdfContentElement element;
    ContentObjectRef out = NewObject();
    EXPECT_EQ(element.get_PdfObject(&out), hr::kFalse);
    EXPECT_EQ(out, nullptr);

    const ContentObjectRef a = NewObject();
    ASSERT_EQ(element.put_PdfObject(a), hr::kOk);
    EXPECT_EQ(element.get_PdfObject(&out), hr::kOk);
    EXPECT_EQ(out, a);
    EXPECT_EQ(a.use_count(), 3) << "held by the test twice and by the element";
    out.reset();
    ASSERT_EQ(element.put_PdfObject(nullptr), hr::kOk);
    EXPECT_EQ(a.use_count(), 1) << "unbinding releases the object";
}

// One of the host's collections: a map, with the calls it received.
class FakeCollection final : public ObjectCollections {
  public:
    std::map<std::int32_t, ContentObjectRef> objects;
    std::int32_t next_id = 0;  // the identifier Add hands out; 0: Add fails
    std::vector<std::string> calls;

    HResult Lookup(std::int32_t id, ContentObjectRef* found) override {
        calls.push_back("lookup " + std::to_string(id));
        const auto it = objects.find(id);
        if (it == objects.end()) return hr::kInvalidArg;
        *found = it->second;
        return hr::kOk;
    }
    HResult Add(const ContentObjectRef& object, std::int32_t* id) override {
        calls.push_back("add");
        if (next_id == 0) return hr::kFail;
        objects[next_id] = object;
        *id = next_id;
        return hr::kOk;
    }
};

TEST(Element, ResolveObjectLink) {
    const ContentObjectRef a = NewObject();
    const ContentObjectRef b = NewObject();
    struct Case {
        const char* name;
        std::int32_t id;
        ContentObjectRef bound;
        bool with_primary;
        bool with_secondary;
        std::map<std::int32_t, ContentObjectRef> in_primary, in_secondary;
        std::int32_t primary_next, secondary_next;
        ContentObjectRef expected;
        std::int32_t expected_id;
        Calls primary_calls, secondary_calls;
    } cases[] = {
        {"negative id: secondary",
         -5,
         a,
         true,
         true,
         {{-5, a}},
         {{-5, b}},
         0,
         0,
         b,
         -5,
         {},
         {"lookup -5"}},
        {"positive id: primary",
         7,
         nullptr,
         true,
         true,
         {{7, a}},
         {{7, b}},
         0,
         0,
         a,
         7,
         {"lookup 7"},
         {}},
        {"negative id without secondary: primary",
         -5,
         nullptr,
         true,
         false,
         {{-5, b}},
         {},
         0,
         0,
         b,
         -5,
         {"lookup -5"},
         {}},
        {"positive id without primary: no lookup",
         7,
         a,
         false,
         true,
         {},
         {{7, b}},
         0,
         0,
         a,
         7,
         {},
         {}},
        {"id that finds nothing unbinds",
         7,
         a,
         true,
         true,
         {},
         {},
         3,
         -2,
         nullptr,
         7,
         {"lookup 7"},
         {}},
        {"same object found", 7, a, true, true, {{7, a}}, {}, 0, 0, a, 7, {"lookup 7"}, {}},
        {"no id: registered in the secondary", 0, a, true, true, {}, {}, 3, -2, a, -2, {}, {"add"}},
        {"secondary refuses: registered in the primary",
         0,
         a,
         true,
         true,
         {},
         {},
         3,
         0,
         a,
         3,
         {"add"},
         {"add"}},
        {"only a primary", 0, a, true, false, {}, {}, 3, 0, a, 3, {"add"}, {}},
        {"no id and no object", 0, nullptr, true, true, {}, {}, 3, -2, nullptr, 0, {}, {}},
        {"no collections", 0, a, false, false, {}, {}, 0, 0, a, 0, {}, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        CZPdfContentElement element;
        element.put_PdfObject(c.bound);
        ASSERT_EQ(LoadBytes(element, Rec(c.id, 1, 0, 0, 0, 0, -1)), hr::kOk);
        FakeCollection primary, secondary;
        primary.objects = c.in_primary;
        primary.next_id = c.primary_next;
        secondary.objects = c.in_secondary;
        secondary.next_id = c.secondary_next;
        EXPECT_EQ(element.ResolveObjectLink(c.with_primary ? &primary : nullptr,
                                            c.with_secondary ? &secondary : nullptr),
                  hr::kOk);
        ContentObjectRef bound;
        element.get_PdfObject(&bound);
        EXPECT_EQ(bound, c.expected);
        EXPECT_EQ(element.ObjectId(), c.expected_id);
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
        calls.push_back("map " + std::to_string(count));
        return raster_.LogicalToDevice(points, count);
    }
    int SaveState() override {
        calls.push_back("save");
        return raster_.SaveState();
    }
    bool RestoreState(int token) override {
        calls.push_back("restore");
        return raster_.RestoreState(token);
    }
    bool SetTextMapping() override {
        calls.push_back("text");
        return raster_.SetTextMapping();
    }
    std::optional<DeviceRect> ClipBox() override { return raster_.ClipBox(); }
    bool DrawBgra(std::int32_t x, std::int32_t y, int width, int height, const std::uint8_t* pixels,
                  std::ptrdiff_t stride) override {
        if (calls.empty() || calls.back() != "draw") calls.push_back("draw");
        mapping_while_drawing = raster_.GetMapping();
        return raster_.DrawBgra(x, y, width, height, pixels, stride);
    }

    std::vector<std::string> calls;
    RasterDeviceContext::Mapping mapping_while_drawing;

  private:
    RasterDeviceContext& raster_;
};

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

bool SameMapping(const RasterDeviceContext::Mapping& a, const RasterDeviceContext::Mapping& b) {
    auto same = [](DevicePoint p, DevicePoint q) { return p.x == q.x && p.y == q.y; };
    return same(a.window_origin, b.window_origin) && same(a.viewport_origin, b.viewport_origin) &&
           same(a.window_extent, b.window_extent) && same(a.viewport_extent, b.viewport_extent);
}

TEST(Element, DrawsItsPageIntoTheMappedRectangle) {
    // Page 1 is white, page 2 black all over.
    std::vector<samples::SamplePage> pages(2);
    for (auto& page : pages) page.width = page.height = 100;
    pages[1].content = samples::FilledRect(0, 0, 100, 100);
    const auto file = test::ScratchDir() / "pages.pdf";
    ASSERT_TRUE(samples::WriteFile(file, samples::BuildPdf(pages)));
    const ContentObjectRef object = NewObject();
    ASSERT_EQ(object->SetPdfDocument(FromPath(file), 0, u""), hr::kOk);

    using Mapping = RasterDeviceContext::Mapping;
    const Calls drawn = {"map 3", "save", "text", "draw", "restore"};
    const Calls not_drawn = {"map 3", "save", "text", "restore"};
    const Mapping half{{0, 0}, {0, 0}, {2, 2}, {1, 1}};
    const Mapping per_axis{{0, 0}, {0, 0}, {1, 4}, {2, 1}};
    const Mapping moved{{4, 6}, {0, 0}, {1, 1}, {1, 1}};
    struct Case {
        const char* name;
        Mapping mapping;
        std::int32_t left, top, width, height, page;
        DeviceRect dark;
        Calls calls;
    } cases[] = {
        {"one to one", {}, 10, 20, 50, 30, 2, {10, 20, 60, 50}, drawn},
        {"half size", half, 20, 40, 100, 60, 2, {10, 20, 60, 50}, drawn},
        {"scaled per axis", per_axis, 5, 80, 25, 120, 2, {10, 20, 60, 50}, drawn},
        // The object draws the page rectangle in device pixels, given from the device origin.
        {"window origin moved", moved, 10, 20, 50, 30, 2, {10, 20, 60, 50}, drawn},
        {"flipped by a negative size", {}, 60, 50, -50, -30, 2, {10, 20, 60, 50}, drawn},
        {"white page", {}, 10, 20, 50, 30, 1, {}, drawn},
        {"page that does not exist", {}, 10, 20, 50, 30, 3, {}, not_drawn},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        CZPdfContentElement element;
        element.put_PdfObject(object);
        element.SetPosition(c.left, c.top, c.width, c.height);
        element.put_Page(c.page);
        RasterDeviceContext raster(80, 80);
        raster.SetMapping(c.mapping);
        RecordingContext dc(raster);
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(element.DrawToDC(dc, 0), hr::kOk);
        ::testing::internal::GetCapturedStderr();
        EXPECT_EQ(dc.calls, c.calls);
        const DeviceRect dark = DarkArea(raster);
        EXPECT_EQ((std::vector<int>{dark.left, dark.top, dark.right, dark.bottom}),
                  (std::vector<int>{c.dark.left, c.dark.top, c.dark.right, c.dark.bottom}));
        if (c.calls == drawn) {
            EXPECT_TRUE(
                SameMapping(dc.mapping_while_drawing,
                            {c.mapping.window_origin, c.mapping.viewport_origin, {1, 1}, {1, 1}}))
                << "the page is drawn in the text mapping";
        }
        EXPECT_TRUE(SameMapping(raster.GetMapping(), c.mapping)) << "the mapping is restored";
        EXPECT_EQ(raster.SavedStates(), 0);
    }
}

TEST(Element, DrawingWithoutSomethingToDraw) {
    RasterDeviceContext raster(10, 10);
    {
        CZPdfContentElement element;
        element.SetPosition(0, 0, 10, 10);
        RecordingContext dc(raster);
        EXPECT_EQ(element.DrawToDC(dc, 0), hr::kFalse) << "no object bound";
        EXPECT_TRUE(dc.calls.empty());
    }
    {
        // An object without a document draws nothing; the element still did its part.
        CZPdfContentElement element;
        element.SetPosition(0, 0, 10, 10);
        element.put_PdfObject(NewObject());
        RecordingContext dc(raster);
        EXPECT_EQ(element.DrawToDC(dc, 0), hr::kOk);
        EXPECT_EQ(dc.calls, (Calls{"map 3", "save", "text", "restore"}));
        EXPECT_EQ(raster.SavedStates(), 0);
    }
}

}  // namespace
}  // namespace zpdf
