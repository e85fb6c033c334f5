#include "effects/EffectManager.h"
#include "util/BaseClass.h"
#include "util/SDO.h"

#include <gtest/gtest.h>

#include <climits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

SDO::CData blob(const char* bytes, int count) {
    SDO::CData data;
    EXPECT_TRUE(data.Assign(bytes, count));
    return data;
}

// A plain object of the registry's root class.
using Probe = InertParameterBase;

} // namespace

TEST(SdoData, PaddingLeavesRoomForTheTerminatorInWholeWords) {
    const int cases[][2] = {{0, 0}, {-7, 0}, {1, 4}, {3, 4}, {4, 8}, {7, 8}, {INT_MAX, 0}};
    for (auto [n, bytes] : cases) EXPECT_EQ(SDO::Padding(n), bytes) << n;
}

TEST(SdoString, AppendsCopiesAndReadsEmptyAsTheNullMarker) {
    SDO::CString path("MASTER/");
    ((path += "PART") += -12) += nullptr;
    (path += "") += "/X/";
    EXPECT_STREQ(path.c_str(), "MASTER/PART-12/X/");
    EXPECT_EQ(path.Length(), 17);
    EXPECT_EQ(path.DataSize(), 20);
    SDO::CString copy(path);
    path = "X";
    EXPECT_STREQ(copy.c_str(), "MASTER/PART-12/X/");
    copy = copy.c_str() + 7; // a tail of its own text
    EXPECT_STREQ(copy.c_str(), "PART-12/X/");
    EXPECT_TRUE(path != "Y" && path != nullptr);

    SDO::CString empty, fromNull(nullptr), cleared("abc");
    cleared = nullptr;
    copy = empty.Data(); // the marker must not turn into content
    for (const SDO::CString* s : {&empty, &fromNull, &cleared, &copy}) {
        EXPECT_TRUE(s->Empty());
        EXPECT_STREQ(s->Data(), "(null*)");
        EXPECT_TRUE(*s != "");
        EXPECT_FALSE(*s != "(null*)");
    }
}

// Every encoding's result lasts until the next encoding on the same thread.
TEST(SdoData, EncodesBytesInOrderWithUpperCaseHex) {
    auto all = [](const SDO::CData& data) {
        std::string texts;
        for (auto encode : {&SDO::CData::Hex2, &SDO::CData::Hex3, &SDO::CData::Hex4,
                            &SDO::CData::Hex5, &SDO::CData::ColorRGB})
            texts += std::string((data.*encode)()) + "|";
        return texts;
    };
    const SDO::CData two = blob("\x0A\x1B", 2), empty;
    EXPECT_EQ(all(two), "0A1B|0A 1B|#0A #1B|0x0A 0x1B|#0A1B|");
    EXPECT_EQ(all(blob("\xFF\x80\x00", 3)), "FF8000|FF 80 00|#FF #80 #00|0xFF 0x80 0x00|#FF8000|");
    EXPECT_EQ(all(empty), "00|00|#00|0x00|#000000|");
    EXPECT_STREQ(two.XML(0), "<CData encoding='HEX5'>\n\t0x0A 0x1B\n</CData>\n");
    EXPECT_STREQ(two.XML(2), "\t\t<CData encoding='HEX5'>\n\t\t\t0x0A 0x1B\n\t\t</CData>\n");
    EXPECT_STREQ(empty.XML(3), "<CData>\n\tundefined</CData>");
    // Neither blob operations nor another thread's encodings touch this thread's result.
    const char* hex = two.Hex2();
    {
        SDO::CData other = blob("\xFF", 1);
        other.Append("\x01", 1);
        std::thread([&] { EXPECT_STREQ(SDO::CData(other).Hex5(), "0xFF 0x01"); }).join();
    }
    EXPECT_STREQ(hex, "0A1B");
}

TEST(SdoPointerList, KeepsOrderAndRelinksOnDelete) {
    int a = 0, b = 0, c = 0, d = 0;
    SDO::CPointerList list;
    auto contents = [&list] {
        std::vector<void*> seen;
        for (list.Rewind(); void* p = list.Next();) seen.push_back(p);
        return seen;
    };
    list.Push(nullptr); // ignored
    list.Push(&a);
    list.Push(&b);
    EXPECT_EQ(list.Next(), &b); // the cursor stands on the newest item
    EXPECT_EQ(list.Next(), nullptr);
    for (int* p : {&a, &c}) list.Push(p);
    list.Delete(&d); // absent
    list.Delete(&a); // only the first of two
    EXPECT_EQ(contents(), (std::vector<void*>{&b, &a, &c}));
    list.Delete(&b); // head
    list.Delete(&c); // tail
    list.Push(&d);   // must hang on the new tail, not a freed one
    EXPECT_EQ(contents(), (std::vector<void*>{&a, &d}));
    list.Rewind();
    list.Delete(&a); // the cursor's item: the walk continues with its successor
    EXPECT_EQ(list.Next(), &d);
    list.Delete(&d);
    list.Push(&c);
    EXPECT_EQ(contents(), (std::vector<void*>{&c}));
    EXPECT_EQ(list.Count(), 1);
}

TEST(SdoPrinTable, NamesEveryByte) {
    const char* control[32] = {"<NUL>", "<SOH>", "<STX>", "<ETX>", "<EOT>", "<ENQ>", "<ACK>",
                               "<BEL>", "<BS>",  "\t",    "\n",    "<VT>",  "<FF>",  "\r",
                               "<SO>",  "<SI>",  "<DLE>", "<DC1>", "<DC2>", "<DC3>", "<DC4>",
                               "<NAK>", "<SYN>", "<ETB>", "<CAN>", "<EM>",  "<SUB>", "<ESC>",
                               "<FS>",  "<GS>",  "<RS>",  "<US>"};
    SDO::CPrinTable table;
    for (int i = 0; i < 256; ++i) {
        const std::string expected = i < 32 ? control[i] : std::string(1, char(i));
        EXPECT_EQ(table[static_cast<unsigned char>(i)], expected) << i;
    }
}

TEST(Registry, OnlyNamedObjectsEnterAndEveryEntryLeaves) {
    const int before = BaseClass::registeredCount();
    Probe unnamed, blank, nulled, named, other;
    EXPECT_STREQ(unnamed.getName().Data(), "*");
    blank.setName("");
    nulled.setName(nullptr);
    named.setName("INSTRUMENT_EFFECTS");
    other.setName("X");
    for (Probe* p : {&unnamed, &blank, &nulled, static_cast<Probe*>(nullptr)})
        BaseClass::registerObject(p);
    EXPECT_EQ(BaseClass::registeredCount(), before);
    for (Probe* p : {&named, &other, &named}) BaseClass::registerObject(p);
    EXPECT_EQ(BaseClass::registeredCount(), before + 3);
    BaseClass::unregisterObject(&named);   // both entries
    BaseClass::unregisterObject(&unnamed); // absent
    EXPECT_EQ(BaseClass::registeredCount(), before + 1);
    BaseClass::unregisterObject(&other);
    EXPECT_EQ(BaseClass::registeredCount(), before);
    // Effect managers with a part name register themselves and leave when destroyed.
    EffectGlobals globals;
    {
        EffectManager part(globals, 3, 1), system(globals, -2, 0), nameless(globals, -3, 1);
        EXPECT_EQ(BaseClass::registeredCount(), before + 2);
    }
    EXPECT_EQ(BaseClass::registeredCount(), before);
}

TEST(Registry, UniqueAddressCountsLiveObjectsOnEveryThread) {
    const int base = BaseClass::instanceCountNow(), registered = BaseClass::registeredCount();
    auto a = std::make_unique<Probe>(), b = std::make_unique<Probe>();
    EXPECT_EQ(a->getUniqueAddress(), base);
    EXPECT_EQ(b->getUniqueAddress(), base + 1);
    a.reset();
    Probe c;
    EXPECT_EQ(c.getUniqueAddress(), base + 1);
    b.reset();
    {
        std::vector<std::jthread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([] {
                for (int i = 0; i < 200; ++i) {
                    Probe p;
                    p.setName("X");
                    BaseClass::registerObject(&p);
                    BaseClass::unregisterObject(&p);
                }
            });
    }
    EXPECT_EQ(BaseClass::instanceCountNow(), base + 1);
    EXPECT_EQ(BaseClass::registeredCount(), registered);
}
