// Media types and bitmap headers.
#include "tests/com/baseclasses_fixture.h"

#include <cstring>
#include <numeric>

namespace kestra::test {
namespace {

TEST(MediaType, CopiesOwnTheirBlockAndCountTheirUnknown) {
    TestGraph counted;
    {
        CMediaType type = testType();
        BYTE block[5] = {1, 2, 3, 4, 5};
        ASSERT_TRUE(type.SetFormat(block, sizeof block));
        type.pUnk = static_cast<IFilterGraph*>(&counted);
        counted.AddRef();
        const CMediaType copy(type);
        CMediaType assigned;
        assigned = copy;
        EXPECT_EQ(counted.m_references, 4);
        EXPECT_NE(copy.pbFormat, type.pbFormat);
        EXPECT_EQ(std::memcmp(assigned.Format(), block, sizeof block), 0);
        EXPECT_TRUE(assigned == type);
        assigned.Format()[4] = 0;
        EXPECT_TRUE(assigned != type);
        EXPECT_EQ(type.Set(type), S_OK) << "to itself";
        EXPECT_EQ(type.FormatLength(), 5u);
        AM_MEDIA_TYPE* made = CreateMediaType(&type);
        ASSERT_NE(made, nullptr);
        EXPECT_EQ(counted.m_references, 5);
        DeleteMediaType(made);
        DeleteMediaType(nullptr);
    }
    EXPECT_EQ(counted.m_references, 1);
}

TEST(MediaType, LengthWithoutABlockIsRefusedAndKeepsTheOldContent) {
    CMediaType type = testType();
    AM_MEDIA_TYPE broken = testType(1);
    broken.cbFormat = 1000;
    broken.pbFormat = nullptr;
    EXPECT_EQ(type.Set(broken), E_INVALIDARG);
    EXPECT_TRUE(type == testType());
    HRESULT hr = S_OK;
    const CMediaType made(broken, &hr);
    EXPECT_EQ(hr, E_INVALIDARG);
    EXPECT_EQ(made.cbFormat, 0u);
    EXPECT_EQ(CreateMediaType(&broken), nullptr);
    AM_MEDIA_TYPE copy;
    EXPECT_EQ(CopyMediaType(&copy, &broken), E_INVALIDARG);
    EXPECT_EQ(copy.cbFormat, 0u);
    EXPECT_EQ(copy.pbFormat, nullptr);
}

TEST(MediaType, BlockIsReplacedAlsoByAPartOfItself) {
    CMediaType type;
    BYTE bytes[8];
    std::iota(bytes, bytes + 8, BYTE(1));
    ASSERT_TRUE(type.SetFormat(bytes, 8));
    ASSERT_TRUE(type.SetFormat(type.Format() + 1, 2)) << "a part of itself";
    EXPECT_EQ(type.Format()[0], 2);
    EXPECT_EQ(type.Format()[1], 3);
    ASSERT_NE(type.AllocFormatBuffer(32), nullptr);
    EXPECT_EQ(type.FormatLength(), 32u);
    EXPECT_TRUE(type.SetFormat(nullptr, 0));
    EXPECT_EQ(type.Format(), nullptr);
    EXPECT_EQ(type.FormatLength(), 0u);
}

TEST(MediaType, DiffersByEveryFieldThatIsCompared) {
    BYTE block[4] = {1, 2, 3, 4};
    const auto make = [&] {
        CMediaType type = testType();
        type.SetFormat(block, sizeof block);
        return type;
    };
    const CMediaType type = make();
    const struct {
        const char* what;
        void (*change)(CMediaType& other);
    } changes[] = {{"major type", [](CMediaType& other) { other.SetType(&MEDIATYPE_Audio); }},
                   {"subtype", [](CMediaType& other) { other.SetSubtype(&MEDIASUBTYPE_RGB24); }},
                   {"format type", [](CMediaType& other) { other.SetFormatType(&FORMAT_WaveFormatEx); }},
                   {"length", [](CMediaType& other) { other.SetFormat(other.Format(), 3); }},
                   {"block", [](CMediaType& other) { other.Format()[3] = 5; }}};
    for (const auto& [what, change] : changes) {
        SCOPED_TRACE(what);
        CMediaType other = make();
        EXPECT_TRUE(type == other);
        EXPECT_TRUE(type.MatchesPartial(&other));
        change(other);
        EXPECT_TRUE(type != other);
        EXPECT_FALSE(type.MatchesPartial(&other));
    }
    CMediaType empty = make(), other = make();
    empty.ResetFormatBuffer();
    other.ResetFormatBuffer();
    EXPECT_TRUE(empty == other) << "without blocks";
    EXPECT_TRUE(empty.MatchesPartial(&other));
    other = static_cast<const AM_MEDIA_TYPE&>(type); // of a type that is no CMediaType
    EXPECT_TRUE(other == type);
}

TEST(MediaType, BlockIsMadeAnewOnlyForAnotherLength) {
    CMediaType type = testType();
    BYTE* first = type.AllocFormatBuffer(16);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(type.AllocFormatBuffer(16), first);
    EXPECT_EQ(type.AllocFormatBuffer(0), nullptr);
    EXPECT_EQ(type.FormatLength(), 0u);
}

TEST(MediaType, BothTypesMustBeGivenForAWholeOne) {
    CMediaType type = testType();
    EXPECT_FALSE(type.IsPartiallySpecified());
    type.SetFormatType(&GUID_NULL);
    EXPECT_TRUE(type.IsPartiallySpecified());
    type = testType();
    type.SetType(&GUID_NULL);
    EXPECT_TRUE(type.IsPartiallySpecified());
}

TEST(MediaType, SampleSizeOfZeroMeansVariable) {
    CMediaType type;
    EXPECT_TRUE(type.IsFixedSize());
    EXPECT_EQ(type.GetSampleSize(), 1u);
    type.SetSampleSize(100);
    EXPECT_EQ(type.GetSampleSize(), 100u);
    type.SetSampleSize(0);
    EXPECT_FALSE(type.IsFixedSize());
    EXPECT_EQ(type.GetSampleSize(), 0u);
    type.SetTemporalCompression(TRUE);
    EXPECT_TRUE(type.IsTemporalCompressed());
}

TEST(MediaType, PartialTypeMatchesByWhatItNames) {
    const CMediaType full = testType();
    EXPECT_FALSE(full.IsPartiallySpecified());
    CMediaType partial;
    EXPECT_TRUE(partial.IsPartiallySpecified());
    EXPECT_TRUE(full.MatchesPartial(&partial));
    partial.SetType(full.Type());
    EXPECT_TRUE(full.MatchesPartial(&partial));
    EXPECT_TRUE(partial.IsPartiallySpecified()) << "no format type yet";
    partial.SetSubtype(&MEDIASUBTYPE_RGB24);
    EXPECT_FALSE(full.MatchesPartial(&partial));
    partial = full;
    EXPECT_TRUE(full.MatchesPartial(&partial));
    BYTE block = 1;
    partial.SetFormat(&block, 1);
    EXPECT_FALSE(full.MatchesPartial(&partial)) << "a named format type covers its block";
    partial.SetFormatType(&GUID_NULL);
    EXPECT_TRUE(full.MatchesPartial(&partial));
}

BITMAPINFOHEADER header(LONG width, LONG height, WORD bits, DWORD compression = BI_RGB) {
    BITMAPINFOHEADER result{};
    result.biSize = sizeof result;
    result.biWidth = width;
    result.biHeight = height;
    result.biPlanes = 1;
    result.biBitCount = bits;
    result.biCompression = compression;
    return result;
}

TEST(BitmapInfo, LinesArePaddedToFourBytes) {
    struct {
        LONG width, height;
        WORD bits;
        DWORD bytes;
    } const cases[] = {
        {1, 1, 24, 4},  {2, 1, 24, 8},          {5, 3, 24, 48}, {1920, 1080, 24, 6220800}, {1920, -1080, 24, 6220800},
        {33, 2, 1, 16}, {720, 486, 16, 699840}, {0, 100, 32, 0}};
    for (const auto& c : cases) {
        const BITMAPINFOHEADER h = header(c.width, c.height, c.bits);
        EXPECT_EQ(GetBitmapSize(&h), c.bytes) << c.width << "x" << c.height;
    }
    const BITMAPINFOHEADER huge = header(0x7FFFFFFF, LONG(0x80000000), 32);
    EXPECT_EQ(GetBitmapSize(&huge), 0u) << "does not fit";
    const BITMAPINFOHEADER negative = header(-5, 5, 24);
    EXPECT_EQ(GetBitmapSize(&negative), 0u);
}

TEST(BitmapInfo, SubtypeFollowsDepthAndFourcc) {
    const auto subtype = [](WORD bits, DWORD compression = BI_RGB) {
        const BITMAPINFOHEADER h = header(4, 4, bits, compression);
        return GetBitmapSubtype(&h);
    };
    EXPECT_EQ(subtype(1), MEDIASUBTYPE_RGB1);
    EXPECT_EQ(subtype(4), MEDIASUBTYPE_RGB4);
    EXPECT_EQ(subtype(8), MEDIASUBTYPE_RGB8);
    EXPECT_EQ(subtype(16), MEDIASUBTYPE_RGB555);
    EXPECT_EQ(subtype(24), MEDIASUBTYPE_RGB24);
    EXPECT_EQ(subtype(32), MEDIASUBTYPE_RGB32);
    EXPECT_EQ(subtype(7), GUID_NULL);
    EXPECT_EQ(subtype(16, MAKEFOURCC('Y', 'U', 'Y', '2')), MEDIASUBTYPE_YUY2);
    EXPECT_EQ(subtype(16, MAKEFOURCC('U', 'Y', 'V', 'Y')), MEDIASUBTYPE_UYVY);
    EXPECT_EQ(subtype(16, BI_BITFIELDS), GUID_NULL) << "masks are nobody's here";
}

} // namespace
} // namespace kestra::test
