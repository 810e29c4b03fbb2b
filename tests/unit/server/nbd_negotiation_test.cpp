// SPDX-License-Identifier: GPL-2.0-only
// The NBD handshake, byte for byte.
#include "nbd_rig.h"

namespace
{

using namespace nbd_rig;

struct NbdNegotiation : NbdRig {
    Client client = connect();

    // The one answer to an option.
    OptionReply answer_to(Option option, const Bytes& data = {})
    {
        const auto answers = client.ask(option, data);
        EXPECT_EQ(answers.size(), 1u);
        return answers.empty() ? OptionReply::ack : answers.back().type;
    }
    std::uint16_t flags_of(const OptionAnswer& answer) { return wire::load<std::uint16_t>(answer.data.data() + 10); }
};

constexpr unsigned plain_flags = 0b1101'0110'1101; // of a disk that may be changed, without structured replies

TEST_F(NbdNegotiation, GoTellsSizeFlagsAndBlockSizesAndBegins)
{
    ASSERT_TRUE(client.greet());
    const auto answers = client.ask(Option::go, go_data("sda"));
    ASSERT_EQ(answers.size(), 3u);
    EXPECT_EQ(answers[0].type, OptionReply::info);
    EXPECT_EQ(answers[0].data, words(std::uint16_t(0), disk_bytes, std::uint16_t(plain_flags)));
    EXPECT_EQ(answers[1].type, OptionReply::info);
    EXPECT_EQ(answers[1].data, words(std::uint16_t(3), 512u, 4096u, 32u << 20));
    EXPECT_EQ(answers[2].type, OptionReply::ack);
    EXPECT_EQ(client.ask(Command::flush, 0, 0).error, Error::none);
}

TEST_F(NbdNegotiation, TheFirstDiskIsTheDefaultExportAndGivesItsNameWhenAsked)
{
    ASSERT_TRUE(client.greet());
    const auto answers = client.ask(Option::info, go_data("", {wire::Info::name}));
    ASSERT_EQ(answers.size(), 4u);
    EXPECT_EQ(answers[2].data, words(std::uint16_t(1)) + text("sda"));
}

TEST_F(NbdNegotiation, InfoLeavesTheClientFreeToChooseAnother)
{
    ASSERT_TRUE(client.greet());
    EXPECT_EQ(client.ask(Option::info, go_data("sda")).back().type, OptionReply::ack);
    const auto answers = client.ask(Option::go, go_data("sdb"));
    EXPECT_EQ(answers[0].data, words(std::uint16_t(0), std::uint64_t(1 << 20), std::uint16_t(plain_flags)));
}

TEST_F(NbdNegotiation, AnUnknownNameIsToldAndTheClientMayAskAgain)
{
    ASSERT_TRUE(client.greet());
    EXPECT_EQ(answer_to(Option::go, go_data("sdz")), OptionReply::unknown);
    EXPECT_EQ(client.ask(Option::go, go_data("sdb")).back().type, OptionReply::ack);
}

TEST_F(NbdNegotiation, ListNamesEveryDisk)
{
    ASSERT_TRUE(client.greet());
    const auto answers = client.ask(Option::list);
    ASSERT_EQ(answers.size(), 3u);
    EXPECT_EQ(answers[0].type, OptionReply::server);
    EXPECT_EQ(answers[0].data, words(3u) + text("sda"));
    EXPECT_EQ(answers[1].data, words(3u) + text("sdb"));
    EXPECT_EQ(answers[2].type, OptionReply::ack);
}

TEST_F(NbdNegotiation, TheOldWayInSendsSizeAndFlagsAlone)
{
    ASSERT_TRUE(client.greet());
    client.send_option(Option::export_name, text("sda"));
    EXPECT_EQ(client.receive(10), words(disk_bytes, std::uint16_t(plain_flags)));
    EXPECT_EQ(client.ask(Command::flush, 0, 0).error, Error::none);
}

TEST_F(NbdNegotiation, TheOldWayInPadsForAClientThatDidNotDoWithout)
{
    ASSERT_TRUE(client.greet(wire::handshake_fixed_newstyle));
    client.send_option(Option::export_name, text("sda"));
    EXPECT_EQ(client.receive(134), words(disk_bytes, std::uint16_t(plain_flags)) + Bytes(124));
    EXPECT_EQ(client.ask(Command::flush, 0, 0).error, Error::none);
}

TEST_F(NbdNegotiation, TheOldWayInEndsTheConnectionOverAnUnknownName)
{
    ASSERT_TRUE(client.greet());
    client.send_option(Option::export_name, text("sdz"));
    EXPECT_TRUE(client.ended());
}

TEST_F(NbdNegotiation, AReadOnlyDiskSaysSo)
{
    add("sdc", hosted::make_memory_store(1 << 20), true);
    ASSERT_TRUE(client.greet());
    const auto answers = client.ask(Option::go, go_data("sdc"));
    EXPECT_EQ(flags_of(answers[0]), plain_flags | wire::read_only);
}

TEST_F(NbdNegotiation, StructuredRepliesAddTheFlagOfUnfragmentedReads)
{
    ASSERT_TRUE(client.greet());
    EXPECT_EQ(answer_to(Option::structured_reply), OptionReply::ack);
    EXPECT_EQ(flags_of(client.ask(Option::go, go_data("sda"))[0]), plain_flags | wire::send_df);
}

TEST_F(NbdNegotiation, TlsAndUnknownOptionsAreNotSupportedAndHarmNothing)
{
    ASSERT_TRUE(client.greet());
    EXPECT_EQ(answer_to(Option::starttls), OptionReply::unsupported);
    EXPECT_EQ(answer_to(Option(77), pattern(1000, 1)), OptionReply::unsupported);
    EXPECT_EQ(client.ask(Option::go, go_data("sda")).back().type, OptionReply::ack);
}

TEST_F(NbdNegotiation, DataThatDoesNotFitItsOptionIsInvalid)
{
    ASSERT_TRUE(client.greet());
    EXPECT_EQ(answer_to(Option::list, words(1u)), OptionReply::invalid);
    EXPECT_EQ(answer_to(Option::structured_reply, words(1u)), OptionReply::invalid);
    EXPECT_EQ(answer_to(Option::go), OptionReply::invalid);
    EXPECT_EQ(answer_to(Option::go, words(1000u) + text("sda")), OptionReply::invalid);
    EXPECT_EQ(answer_to(Option::go, words(5000u) + pattern(5000, 1)), OptionReply::invalid);
    EXPECT_EQ(answer_to(Option::go, go_data("sda") + text("x")), OptionReply::invalid);
    EXPECT_EQ(answer_to(Option::info, words(3u) + text("sda") + words(std::uint16_t(9))), OptionReply::invalid);
    EXPECT_EQ(answer_to(Option::list_meta_context, words(3u) + text("sda") + words(0xffffffffu)), OptionReply::invalid);
    EXPECT_EQ(answer_to(Option::list_meta_context, words(3u) + text("sda") + words(1u, 9u) + text("base")),
              OptionReply::invalid);
    EXPECT_EQ(client.ask(Option::go, go_data("sda")).back().type, OptionReply::ack);
}

TEST_F(NbdNegotiation, AnOptionOfMoreThan64KibEndsTheConnection)
{
    ASSERT_TRUE(client.greet());
    client.send(words(wire::magic_option, std::uint32_t(Option::list), 65537u));
    const auto answer = client.option_answer();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->type, OptionReply::too_big);
    EXPECT_TRUE(client.ended());
}

TEST_F(NbdNegotiation, TheAllocationContextIsFoundAndSelected)
{
    ASSERT_TRUE(client.greet());
    client.ask(Option::structured_reply);
    for (const auto& queries : std::vector<std::vector<std::string>>{{}, {"base:"}, {"x:y", "base:allocation"}}) {
        const auto found = client.ask(Option::list_meta_context, context_data("sda", queries));
        ASSERT_EQ(found.size(), 2u);
        EXPECT_EQ(found[0].data, words(0u) + text("base:allocation"));
    }
    EXPECT_EQ(client.ask(Option::list_meta_context, context_data("sda", {"x:y"})).size(), 1u);
    const auto chosen = client.ask(Option::set_meta_context, context_data("sda", {"base:allocation"}));
    ASSERT_EQ(chosen.size(), 2u);
    EXPECT_EQ(chosen[0].type, OptionReply::meta_context);
    EXPECT_EQ(chosen[0].data, words(1u) + text("base:allocation"));
}

TEST_F(NbdNegotiation, AContextCannotBeSelectedWithoutStructuredRepliesNorByANamespace)
{
    ASSERT_TRUE(client.greet());
    EXPECT_EQ(answer_to(Option::set_meta_context, context_data("sda", {"base:allocation"})), OptionReply::invalid);
    client.ask(Option::structured_reply);
    EXPECT_EQ(answer_to(Option::set_meta_context, context_data("sda", {"base:"})), OptionReply::ack);
    EXPECT_EQ(answer_to(Option::set_meta_context, context_data("sda", {})), OptionReply::ack);
}

TEST_F(NbdNegotiation, AContextIsSelectedForOneExport)
{
    ASSERT_TRUE(client.greet());
    client.ask(Option::structured_reply);
    client.ask(Option::set_meta_context, context_data("sda", {"base:allocation"}));
    client.ask(Option::go, go_data("sdb"));
    EXPECT_EQ(client.ask(Command::block_status, 0, 4096).error, Error::invalid);
}

TEST_F(NbdNegotiation, ASelectionThatFailsTakesTheOneBeforeAway)
{
    ASSERT_TRUE(client.greet());
    client.ask(Option::structured_reply);
    client.ask(Option::set_meta_context, context_data("sda", {"base:allocation"}));
    EXPECT_EQ(answer_to(Option::set_meta_context, context_data("sdz", {"base:allocation"})), OptionReply::unknown);
    client.ask(Option::go, go_data("sda"));
    EXPECT_EQ(client.ask(Command::block_status, 0, 4096).error, Error::invalid);
}

TEST_F(NbdNegotiation, AbortIsAcknowledgedAndEndsTheConnection)
{
    ASSERT_TRUE(client.greet());
    EXPECT_EQ(answer_to(Option::abort), OptionReply::ack);
    EXPECT_TRUE(client.ended());
}

TEST_F(NbdNegotiation, FlagsAndMagicsThatAreNotNbdEndTheConnection)
{
    ASSERT_TRUE(client.greet(4));
    EXPECT_TRUE(client.ended());
    Client second = connect();
    ASSERT_TRUE(second.greet());
    second.send(pattern(16, 1));
    EXPECT_TRUE(second.ended());
}

TEST_F(NbdNegotiation, AClientThatSaysNothingLosesItsPlace)
{
    int pair[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    const base::Descriptor here(pair[0]), there(pair[1]);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(quendreld::nbd::negotiate(here.get(), shared.exports, begin + std::chrono::milliseconds(50)));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
}

} // namespace
