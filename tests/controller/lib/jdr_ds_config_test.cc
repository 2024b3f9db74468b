// SPDX-License-Identifier: Apache-2.0
#include "controller/lib/jdr_ds_config.h"

#include <gtest/gtest.h>

#include "controller/lib/json_fields.h"

namespace mirador {
namespace {

constexpr const char* wire =
    R"({"hv":"h","name":"n","uuid":"u","url":"l","hostsystem":"s","type":"t","dc":"d","timestamp":-1,"accessible":1,)"
    R"("capacity":1099511627776,"freeSpace":5,"is_local_dc":1,"paths":["\/a","\/b"]})";

TEST(jdr_ds_config, GoesThereAndBack) {
    json_ptr owner = json_parse_text(wire);
    json_object* obj = owner.get();
    ks_ds_config_t ds;
    ASSERT_EQ(jdr_ds_config(JDR_DECODE, &obj, nullptr, &ds), static_cast<ssize_t>(sizeof ds));
    EXPECT_EQ(ds.hv, "h");
    EXPECT_EQ(ds.dc, "d");
    EXPECT_EQ(ds.hostsystem, "s");
    EXPECT_EQ(ds.timestamp, -1);
    EXPECT_EQ(ds.capacity, 1099511627776U);
    EXPECT_TRUE(ds.is_local_dc);
    EXPECT_EQ(list_count(*ds.paths), 2);

    json_object* made = nullptr;
    ASSERT_EQ(jdr_ds_config(JDR_ENCODE, &made, nullptr, &ds), static_cast<ssize_t>(sizeof ds));
    const json_ptr sent(made);
    EXPECT_STREQ(json_object_to_json_string_ext(made, JSON_C_TO_STRING_PLAIN), wire);

    ASSERT_GT(jdr_ds_config(JDR_FREE, &obj, nullptr, &ds), 0);
    EXPECT_EQ(ds.paths, nullptr);
    EXPECT_EQ(ds.name, std::nullopt);
    EXPECT_EQ(json_object_object_length(obj), 0);
}

TEST(jdr_ds_config, FailsWhereAMemberIsMissing) {
    const json_ptr owner(json_object_new_object());
    json_object* obj = owner.get();
    ks_ds_config_t ds;
    EXPECT_EQ(jdr_ds_config(JDR_DECODE, &obj, "ds", &ds), jdr_failed);
    json_object_object_add(obj, "ds", json_parse_text(wire).release());
    EXPECT_GT(jdr_ds_config(JDR_DECODE, &obj, "ds", &ds), 0);
    json_object* const inner = json_member(obj, "ds");
    json_object_object_add(inner, "paths", json_object_new_int(1));
    EXPECT_GT(jdr_ds_config(JDR_DECODE, &obj, "ds", &ds), 0);
    EXPECT_TRUE(list_empty(*ds.paths));
    json_object_object_add(inner, "freeSpace", json_object_new_string("5"));
    EXPECT_EQ(jdr_ds_config(JDR_DECODE, &obj, "ds", &ds), jdr_failed);
    json_object_object_add(obj, "ds", json_object_new_int(1));
    EXPECT_EQ(jdr_ds_config(JDR_DECODE, &obj, "ds", &ds), jdr_failed);

    ds.url.reset();
    json_object* made = nullptr;
    EXPECT_EQ(jdr_ds_config(JDR_ENCODE, &made, nullptr, &ds), jdr_failed);
    EXPECT_EQ(made, nullptr);
}

}  // namespace
}  // namespace mirador
