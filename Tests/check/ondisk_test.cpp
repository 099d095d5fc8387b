// The readers of NTFS structures on bytes written by hand.
#include "NTFSBridge/ondisk/file_record.hpp"
#include "NTFSBridge/ondisk/fixups.hpp"
#include "NTFSBridge/ondisk/mapping_pairs.hpp"

#include <gtest/gtest.h>

#include <vector>

namespace {

using namespace ntb;
using Bytes = std::vector<uint8_t>;

// "vcn+length@lcn" of each run, "hole" for none, and how the list ends.
std::string decoded(const Bytes& pairs, uint64_t lowest = 0) {
    mapping_pairs_reader reader(pairs, lowest);
    std::string text;
    for (run next;;) {
        switch (reader.read(next)) {
        case mapping_pairs_reader::result::run:
            text += std::to_string(next.vcn) + "+" + std::to_string(next.length) + "@" +
                    (next.is_hole ? "hole" : std::to_string(next.lcn)) + " ";
            break;
        case mapping_pairs_reader::result::end:
            return text + "end";
        case mapping_pairs_reader::result::malformed:
            return text + "malformed";
        }
    }
}

TEST(MappingPairs, AreDecoded) {
    EXPECT_EQ(decoded({0x21, 0x18, 0x34, 0x56, 0x00}), "0+24@22068 end");
    EXPECT_EQ(decoded({0x11, 0x08, 0x40, 0x01, 0x10, 0x11, 0x04, 0xf0, 0x00}, 5),
              "5+8@64 13+16@hole 29+4@48 end");
    for (const Bytes& malformed :
         {Bytes{}, Bytes{0x10, 0x00}, Bytes{0x01, 0x00, 0x00}, Bytes{0x01, 0x80, 0x00},
          Bytes{0x11, 0x08, 0x80, 0x00}, Bytes{0x21, 0x08, 0x40}, Bytes{0x91, 0x01, 0x00},
          Bytes{0x08, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x7f, 0x01, 0x7f, 0x00}}) {
        const std::string text = decoded(malformed, 4096);
        EXPECT_NE(text.find("malformed"), std::string::npos) << text;
    }
    EXPECT_EQ(decoded({0x11, 0x08, 0x40}), "0+8@64 malformed"); // no end
}

TEST(Fixups, AreAppliedAndInserted) {
    Bytes block(1024);
    for (size_t i = 0; i < block.size(); ++i) {
        block[i] = static_cast<uint8_t>(i * 7);
    }
    put_at(block.data(), 4, 2, 0x30);
    put_at(block.data(), 6, 2, 3);
    const Bytes whole = block;
    ASSERT_TRUE(insert_fixups(block));
    EXPECT_EQ(u16_at(block.data(), 510), u16_at(block.data(), 0x30));
    ASSERT_EQ(apply_fixups(block), fixup_result::good);
    EXPECT_TRUE(std::equal(whole.begin() + 0x36, whole.end(), block.begin() + 0x36));

    ASSERT_TRUE(insert_fixups(block));
    block[1022] ^= 1;
    EXPECT_EQ(apply_fixups(block), fixup_result::mismatch);
    put_at(block.data(), 6, 2, 4);
    EXPECT_EQ(apply_fixups(block), fixup_result::malformed);
    EXPECT_FALSE(insert_fixups(block));
}

// A record with one resident attribute of 24 bytes and the end marker.
Bytes recordWith(uint32_t length, uint32_t valueLength, uint32_t used) {
    Bytes record(1024);
    put_at(record.data(), 0x14, 2, 0x38);
    put_at(record.data(), 0x18, 4, used);
    put_at(record.data(), 0x38, 4, at_data);
    put_at(record.data(), 0x3c, 4, length);
    put_at(record.data(), 0x48, 4, valueLength);
    put_at(record.data(), 0x4c, 2, 0x18);
    put_at(record.data(), 0x38 + 0x20, 4, at_end);
    return record;
}

TEST(AttributeReader, StaysInsideTheRecord) {
    attribute_view attribute;
    const Bytes sound = recordWith(0x20, 8, 0x60);
    attribute_reader reader{record_view(sound)};
    ASSERT_EQ(reader.next(attribute), attribute_reader::result::attribute);
    EXPECT_EQ(attribute.type(), at_data);
    EXPECT_EQ(attribute.value().size(), 8u);
    EXPECT_EQ(reader.next(attribute), attribute_reader::result::end);

    for (const Bytes& record :
         {recordWith(0x20, 9, 0x60), recordWith(0x21, 8, 0x60), recordWith(0, 0, 0x60),
          recordWith(0x400, 8, 0x60), recordWith(0x20, 8, 0x38), recordWith(8, 0, 0x60)}) {
        attribute_reader hostile{record_view(record)};
        EXPECT_EQ(hostile.next(attribute), attribute_reader::result::malformed);
    }
}

} // namespace
