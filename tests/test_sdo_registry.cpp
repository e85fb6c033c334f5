#include "util/BaseClass.h"
#include "util/SDO.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

SDO::CData blob(std::initializer_list<unsigned char> bytes) {
    SDO::CData data;
    std::vector<unsigned char> copy(bytes);
    EXPECT_TRUE(data.Assign(copy.data(), static_cast<int>(copy.size())));
    return data;
}

class Probe : public BaseClass {
public:
    void setParameter(int, float) override {}
    float getParameter(int) override { return 0.0f; }
};

} // namespace

TEST(SdoData, PaddingLeavesRoomForTheTerminatorInWholeWords) {
    EXPECT_EQ(SDO::Padding(0), 0);
    EXPECT_EQ(SDO::Padding(-7), 0);
    EXPECT_EQ(SDO::Padding(1), 4);
    EXPECT_EQ(SDO::Padding(3), 4);
    EXPECT_EQ(SDO::Padding(4), 8);
    EXPECT_EQ(SDO::Padding(7), 8);
    EXPECT_EQ(SDO::CString("PART").DataSize(), 8);
}

TEST(SdoString, BuildsNamesAndTheManagerPath) {
    SDO::CString part("PART");
    part += -12;
    EXPECT_STREQ(part.Data(), "PART-12");
    EXPECT_EQ(part.Length(), 7);

    SDO::CString path("MASTER/");
    path += "PART";
    path += 0;
    path += "/INSTRUMENT/INSTRUMENT_EFFECTS/";
    EXPECT_STREQ(path.c_str(), "MASTER/PART0/INSTRUMENT/INSTRUMENT_EFFECTS/");

    path += nullptr;
    path += "";
    EXPECT_STREQ(path.c_str(), "MASTER/PART0/INSTRUMENT/INSTRUMENT_EFFECTS/");

    SDO::CString copy(path);
    path = "X";
    EXPECT_STREQ(copy.c_str(), "MASTER/PART0/INSTRUMENT/INSTRUMENT_EFFECTS/");
    copy = copy.c_str() + 7; // a tail of its own text
    EXPECT_STREQ(copy.c_str(), "PART0/INSTRUMENT/INSTRUMENT_EFFECTS/");
}

TEST(SdoString, EmptyStringReadsAsNullMarker) {
    SDO::CString empty;
    SDO::CString fromNull(nullptr);
    SDO::CString cleared("abc");
    cleared = nullptr;
    for (const SDO::CString* s : {&empty, &fromNull, &cleared}) {
        EXPECT_TRUE(s->Empty());
        EXPECT_STREQ(s->Data(), "(null*)");
        EXPECT_TRUE(*s != "");
        EXPECT_FALSE(*s != "(null*)");
    }
    // Copying an empty string's text must not turn the marker into content.
    SDO::CString copy("x");
    copy = empty.Data();
    EXPECT_TRUE(copy.Empty());

    EXPECT_TRUE(SDO::CString("abc") != "abd");
    EXPECT_STREQ(empty.ClassName(), "CString");
    EXPECT_STREQ(SDO::CData().ClassName(), "CData");
}

TEST(SdoData, EncodesBytesInOrderWithUpperCaseHex) {
    SDO::CData two = blob({0x0A, 0x1B});
    EXPECT_STREQ(two.Hex2(), "0A1B");
    EXPECT_STREQ(two.Hex3(), "0A 1B");
    EXPECT_STREQ(two.Hex4(), "#0A #1B");
    EXPECT_STREQ(two.Hex5(), "0x0A 0x1B");
    EXPECT_STREQ(two.XML(0), "<CData encoding='HEX5'>\n\t0x0A 0x1B\n</CData>\n");
    EXPECT_STREQ(two.XML(2), "\t\t<CData encoding='HEX5'>\n\t\t\t0x0A 0x1B\n\t\t</CData>\n");

    SDO::CData colour = blob({0xFF, 0x80, 0x00});
    EXPECT_STREQ(colour.ColorRGB(), "#FF8000");
    EXPECT_STREQ(colour.Hex3(), "FF 80 00");

    SDO::CData empty;
    EXPECT_STREQ(empty.Hex2(), "00");
    EXPECT_STREQ(empty.Hex3(), "00");
    EXPECT_STREQ(empty.Hex4(), "#00");
    EXPECT_STREQ(empty.Hex5(), "0x00");
    EXPECT_STREQ(empty.ColorRGB(), "#000000");
    EXPECT_STREQ(empty.XML(3), "<CData>\n\tundefined</CData>");
}

TEST(SdoData, EncodingResultLastsUntilTheNextEncodingOnItsThread) {
    SDO::CData first = blob({0x0A, 0x1B});
    const char* hex = first.Hex2();
    const std::string kept = hex;
    // Neither blob operations nor another thread's encodings touch this thread's result.
    {
        SDO::CData other = blob({0xFF});
        other.Append("\x01", 1);
        std::thread([&] { EXPECT_STREQ(SDO::CData(other).Hex5(), "0xFF 0x01"); }).join();
    }
    EXPECT_EQ(std::string(hex), kept);
    EXPECT_STREQ(first.Hex4(), "#0A #1B"); // replaces it with a fresh result
}

TEST(SdoPointerList, KeepsOrderAndRelinksOnDelete) {
    int a = 0, b = 0, c = 0, d = 0;
    auto contents = [](SDO::CPointerList& list) {
        std::vector<void*> seen;
        list.Rewind();
        while (void* p = list.Next()) seen.push_back(p);
        return seen;
    };
    SDO::CPointerList list;
    list.Push(nullptr);
    EXPECT_EQ(list.Next(), nullptr);
    list.Push(&a);
    list.Push(&b);
    EXPECT_EQ(list.Next(), &b); // the cursor stands on the newest item
    EXPECT_EQ(list.Next(), nullptr);
    for (int* p : {&a, &c}) list.Push(p);
    list.Delete(&d); // absent
    list.Delete(&a); // only the first of two
    EXPECT_EQ(contents(list), (std::vector<void*>{&b, &a, &c}));
    list.Delete(&b); // head
    list.Delete(&c); // tail
    list.Push(&d);   // must hang on the new tail, not a freed one
    EXPECT_EQ(contents(list), (std::vector<void*>{&a, &d}));
    EXPECT_EQ(list.Count(), 2);

    list.Rewind();
    list.Delete(&a); // the cursor's item: the walk continues with its successor
    EXPECT_EQ(list.Next(), &d);
    list.Delete(&d);
    EXPECT_EQ(list.Count(), 0);
    list.Push(&c);
    EXPECT_EQ(contents(list), (std::vector<void*>{&c}));
}

TEST(SdoPrinTable, NamesEveryByte) {
    const char* control[32] = {"<NUL>", "<SOH>", "<STX>", "<ETX>", "<EOT>", "<ENQ>", "<ACK>",
                               "<BEL>", "<BS>",  "\t",    "\n",    "<VT>",  "<FF>",  "\r",
                               "<SO>",  "<SI>",  "<DLE>", "<DC1>", "<DC2>", "<DC3>", "<DC4>",
                               "<NAK>", "<SYN>", "<ETB>", "<CAN>", "<EM>",  "<SUB>", "<ESC>",
                               "<FS>",  "<GS>",  "<RS>",  "<US>"};
    SDO::CPrinTable table;
    for (int i = 0; i < 32; ++i) EXPECT_STREQ(table[static_cast<unsigned char>(i)], control[i]);
    for (int i = 32; i < 256; ++i) {
        const char* text = table[static_cast<unsigned char>(i)];
        ASSERT_EQ(std::strlen(text), 1u) << i;
        EXPECT_EQ(static_cast<unsigned char>(text[0]), i);
    }
}

TEST(Registry, OnlyNamedObjectsEnterTheList) {
    const int before = BaseClass::registeredCount();
    Probe unnamed, blank, nulled;
    EXPECT_STREQ(unnamed.getName().Data(), "*");
    EXPECT_STREQ(unnamed.getPath().Data(), "*");
    blank.setName("");
    nulled.setName(nullptr);
    EXPECT_TRUE(nulled.getName().Empty());
    for (Probe* p : {&unnamed, &blank, &nulled}) BaseClass::registerObject(p);
    BaseClass::registerObject(nullptr);
    EXPECT_EQ(BaseClass::registeredCount(), before);

    Probe named, other;
    named.setName("INSTRUMENT_EFFECTS");
    named.setPath("MASTER/PART0/INSTRUMENT/INSTRUMENT_EFFECTS/");
    other.setName("X");
    BaseClass::registerObject(&named);
    BaseClass::registerObject(&other);
    BaseClass::registerObject(&named);
    EXPECT_EQ(BaseClass::registeredCount(), before + 3);
    BaseClass::unregisterObject(&named); // both entries
    EXPECT_EQ(BaseClass::registeredCount(), before + 1);
    BaseClass::unregisterObject(&named);
    BaseClass::unregisterObject(&unnamed);
    EXPECT_EQ(BaseClass::registeredCount(), before + 1);
    BaseClass::unregisterObject(&other);
    EXPECT_EQ(BaseClass::registeredCount(), before);
}

TEST(Registry, UniqueAddressCountsLiveObjects) {
    const int base = BaseClass::instanceCountNow();
    auto* a = new Probe;
    auto* b = new Probe;
    EXPECT_EQ(a->getUniqueAddress(), base);
    EXPECT_EQ(b->getUniqueAddress(), base + 1);
    delete a;
    EXPECT_EQ(BaseClass::instanceCountNow(), base + 1);
    Probe c;
    EXPECT_EQ(c.getUniqueAddress(), base + 1);
    delete b;
    EXPECT_EQ(BaseClass::instanceCountNow(), base + 1);
    EXPECT_EQ(c.getMinValue(-1), 0.0f);
    EXPECT_EQ(c.getMaxValue(0), 1.0f);
    EXPECT_EQ(c.getDefaultValue(1000), 0.5f);
}

TEST(Registry, InstancesOnSeveralThreadsKeepTheListConsistent) {
    const int registered = BaseClass::registeredCount();
    const int live = BaseClass::instanceCountNow();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([] {
            for (int i = 0; i < 200; ++i) {
                Probe p;
                p.setName("INSTRUMENT_EFFECTS");
                BaseClass::registerObject(&p);
                BaseClass::unregisterObject(&p);
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(BaseClass::registeredCount(), registered);
    EXPECT_EQ(BaseClass::instanceCountNow(), live);
}
