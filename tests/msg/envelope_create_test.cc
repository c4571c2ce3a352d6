#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "lib/msg/envelope_internal.h"
#include "tests/support/envelope_bytes.h"

namespace {

TEST(EnvelopeCreate, IsCreatedWithFieldsAsAddingThemDoes) {
    const SharedValue values[] = {scalarValue(FIELD_U16, &FieldData::u16, uint16_t{9}),
                                  stringValue(std::string(300, 's')), stringArrayValue({"one", ""}),
                                  messageValue(kApp)};
    const char* const names[] = {"a", "", nullptr, "m"};
    const uint16_t ids[] = {3, 65535, 0, 1};
    std::vector<pelmoMsgField> fields;
    std::vector<Bytes> records;
    for (size_t i = 0; i < std::size(values); ++i) {
        fields.push_back(values[i]->field());
        fields.back().name = names[i];
        fields.back().id = ids[i];
        records.push_back(recordOf(names[i], ids[i], *values[i]));
    }
    fields[1].size = 0;  // to be worked out

    const auto create = [&](pelmoMsg** out) {
        return msgCreateWithFields(out, "A.B", nullptr, fields.data(),
                                   static_cast<uint32_t>(fields.size()));
    };
    pelmoMsg* made = nullptr;
    ASSERT_EQ(create(&made), kStatusSuccess);
    const Message msg(made);
    EXPECT_EQ(loadBe32At(msgImage(made)), made->length);  // flushed already
    EXPECT_EQ(wireOf(made), outer(kSubAB + kMtypeD + kData + imageOf(records)));
    uint16_t number = 0;
    EXPECT_EQ(pelmoMsg_GetU16(made, nullptr, &number, 3), kStatusSuccess);
    EXPECT_EQ(number, 9);

    made = nullptr;
    ASSERT_EQ(msgCreateWithFields(&made, nullptr, nullptr, nullptr, 0), kStatusSuccess);
    EXPECT_EQ(wireOf(Message(made).get()), outer(kMtypeD + kData + outer({})));
    EXPECT_EQ(create(nullptr), kStatusInvalidArgument);
    EXPECT_EQ(msgCreateWithFields(&made, nullptr, nullptr, nullptr, 1), kStatusInvalidArgument);

    pelmoMsg* none = nullptr;
    fields[3].id = 65535;
    EXPECT_EQ(create(&none), kStatusIdInUse);
    fields[3] = {};
    EXPECT_EQ(create(&none), kStatusInvalidType);
    EXPECT_EQ(msgCreateWithFields(&none, "A..B", nullptr, nullptr, 0), kStatusInvalidSubject);
    EXPECT_EQ(none, nullptr);
}

TEST(EnvelopeCreate, IsCreatedAroundBytes) {
    for (const uint32_t size : {0u, 119u, 120u, 29999u, 30000u}) {
        const Bytes bytes = patternBytes(size, 1);
        pelmoMsg* made = nullptr;
        ASSERT_EQ(msgCreateWithOpaque(&made, "A.B", "R", bytes.data(), size), kStatusSuccess);
        EXPECT_EQ(wireOf(Message(made).get()),
                  outer(kSubAB + kReturnR + kMtypeD + kData +
                        outer(field("", *blockValue(FIELD_OPAQUE, bytes)))));
    }
    pelmoMsg* made = nullptr;
    EXPECT_EQ(msgCreateWithOpaque(&made, nullptr, nullptr, nullptr, 1), kStatusInvalidArgument);
    EXPECT_EQ(msgCreateWithOpaque(nullptr, nullptr, nullptr, "", 1), kStatusInvalidArgument);
    EXPECT_EQ(msgCreateEnveloped(nullptr, nullptr, nullptr, 0), kStatusInvalidArgument);
    EXPECT_EQ(msgCreateEnveloped(&made, nullptr, nullptr, UINT32_MAX), kStatusNoMemory);
    EXPECT_EQ(msgCreateWithOpaque(&made, nullptr, nullptr, "", UINT32_MAX), kStatusNoMemory);
    EXPECT_EQ(made, nullptr);
}

}  // namespace
