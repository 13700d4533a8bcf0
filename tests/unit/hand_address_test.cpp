// Addresses of hands as texts: what each means, how it is written, and what is said of one that is
// wrong.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "korvane_open.h"

namespace talvera::korvane {
namespace {

using testing::HasSubstr;

HandAddress On(LinkKind link, const std::string& where, std::uint8_t channel = 0) {
  HandAddress address;
  address.link = link;
  address.channel = channel;
  if (link == LinkKind::SOCKET_CAN) address.interface_name = where;
  if (link == LinkKind::SERIAL) address.port = where;
  if (link == LinkKind::ZLG || link == LinkKind::HCAN) address.adapter_serial = where;
  return address;
}

HandAddress OnAdapter(LinkKind link, std::uint8_t index, std::uint8_t channel) {
  HandAddress address = On(link, "", channel);
  address.adapter_index = index;
  return address;
}

HandAddress OnPort(const std::string& path, int baud) {
  HandAddress address = On(LinkKind::SERIAL, path);
  address.baud = baud;
  return address;
}

HandAddress With(HandAddress address, std::optional<Model> model, std::optional<std::uint8_t> id,
                 HandType side = HandType::RIGHT) {
  address.model = model;
  address.id = id;
  address.side = side;
  return address;
}

struct Meaning {
  const char* text;
  HandAddress address;
  const char* canonical;  ///< Null where the text is.
};

TEST(HandAddress, IsReadAndWritten) {
  const HandAddress can0 = On(LinkKind::SOCKET_CAN, "can0");
  const HandAddress usb0 = On(LinkKind::SERIAL, "/dev/ttyUSB0");
  const std::string by_path = "/dev/serial/by-path/pci-0000:00:14.0-usb-0:1:1.0-port0";
  const auto left = HandType::LEFT;
  const Meaning meanings[] = {
      {"can0", can0, nullptr},
      {"can0:tessel", With(can0, Model::TESSEL, {}), nullptr},
      {"can0:tessel:2", With(can0, Model::TESSEL, 2), nullptr},
      {"can0:127", With(can0, {}, 127), nullptr},
      {"can0:TesSel:002?side=left", With(can0, Model::TESSEL, 2, left), "can0:tessel:2?side=left"},
      {"can0?side=right", can0, "can0"},
      {"can0:quill:1", With(can0, Model::QUILL, 1), nullptr},
      {"tessel:lumen", With(On(LinkKind::SOCKET_CAN, "tessel"), Model::LUMEN, {}), nullptr},
      {"socketcan:can0:vanta", With(can0, Model::VANTA, {}), "can0:vanta"},
      {"socketcan:zlg:3", With(On(LinkKind::SOCKET_CAN, "zlg"), {}, 3), nullptr},
      {"123456789012345", On(LinkKind::SOCKET_CAN, "123456789012345"), nullptr},
      {"zlg:0.1:brisa:3", With(OnAdapter(LinkKind::ZLG, 0, 1), Model::BRISA, 3), nullptr},
      {"zlg:255", OnAdapter(LinkKind::ZLG, 255, 0), "zlg:255.0"},
      {"hcan:7.255", OnAdapter(LinkKind::HCAN, 7, 255), nullptr},
      {"hcan:SIM-HCAN-0001.0:vanta:1", With(On(LinkKind::HCAN, "SIM-HCAN-0001"), Model::VANTA, 1),
       nullptr},
      {"zlg:4711", On(LinkKind::ZLG, "4711"), "zlg:4711.0"},
      {"zlg:sn=47.2", On(LinkKind::ZLG, "47", 2), nullptr},
      {"zlg:sn=sn=5", On(LinkKind::ZLG, "sn=5"), "zlg:sn=sn=5.0"},
      {"zlg:A.B.1", On(LinkKind::ZLG, "A.B", 1), nullptr},
      {"serial:/dev/ttyUSB0", usb0, "serial:/dev/ttyUSB0@115200"},
      {"serial:/dev/ttyUSB0@921600", OnPort("/dev/ttyUSB0", 921600), nullptr},
      {"serial:/tmp/hand:brisa:1?side=left",
       With(On(LinkKind::SERIAL, "/tmp/hand"), Model::BRISA, 1, left),
       "serial:/tmp/hand@115200:brisa:1?side=left"},
      {"serial:/tmp/a@b@300:5", With(OnPort("/tmp/a@b", 300), {}, 5), nullptr},
      {"serial:/tmp/a?b@9600?side=right", OnPort("/tmp/a?b", 9600), nullptr},
      {"serial:/dev/serial/by-path/pci-0000:00:14.0-usb-0:1:1.0-port0@115200:brisa",
       With(OnPort(by_path, 115200), Model::BRISA, {}), nullptr},
  };
  for (const Meaning& meaning : meanings) {
    SCOPED_TRACE(meaning.text);
    const auto read = HandAddress::Parse(meaning.text);
    ASSERT_TRUE(read) << read.failure().text;
    EXPECT_TRUE(*read == meaning.address) << read->ToString();
    EXPECT_EQ(read->model, meaning.address.model);
    EXPECT_EQ(read->id, meaning.address.id);
    EXPECT_EQ(read->port + read->interface_name,
              meaning.address.port + meaning.address.interface_name);
    EXPECT_EQ(read->adapter_serial, meaning.address.adapter_serial);
    EXPECT_EQ(read->ToString(), meaning.canonical != nullptr ? meaning.canonical : meaning.text);
    EXPECT_TRUE(*HandAddress::Parse(read->ToString()) == *read);
  }
}

TEST(HandAddress, SaysWhatIsWrongAndWhatIsExpected) {
  const std::string nul("can0\0:tessel", 12);
  const struct {
    std::string text;
    const char* part;
    const char* expected;
  } faults[] = {
      {"", "an empty address", "can0:tessel:2"},
      {"?side=left", "an empty address", "can0:tessel:2"},
      {nul, "an unprintable byte (0) at position 4", ""},
      {"can0\n", "an unprintable byte (10)", ""},
      {std::string(5000, 'a'), "5000 characters", "at most 1024"},
      {std::string(16, 'a'), "\"aaaaaaaaaaaaaaaa\" is no interface name", "1 to 15"},
      {"can 0", "\"can 0\" is no interface name", ""},
      {"../x", "is no interface name", ""},
      {":tessel:2", "\"\" is no interface name", ""},
      {"can0:", "\"\" is no model", "brisa, tessel"},
      {"can0:tessla:2", "\"tessla\" is no model", "brisa, tessel"},
      {"can0:\xff\xfe", "\"\" is no model", ""},
      {"can0:tessel:", "\"\" is no id", "1 to 127"},
      {"can0:tessel:0", "\"0\" is no id", "1 to 127"},
      {"can0:tessel:128", "\"128\" is no id", "1 to 127"},
      {"can0:99999999999999999999", "is no id", "1 to 127"},
      {"can0:tessel:-1", "\"-1\" is no id", "1 to 127"},
      {"can0:tessel:2:3", "\"3\" behind the id", "nothing more"},
      {"can0:2:tessel", "\"tessel\" behind the id", "nothing more"},
      {"can0?side=up", "\"side=up\"", "side=left"},
      {"can0?left", "\"left\"", "side=left"},
      {"can0?", "\"\" behind the question mark", "side=left"},
      {"zlg", "\"zlg\" names no link", "a colon"},
      {"zlg:", "names no adapter", "zlg:0.1"},
      {"hcan:.1", "names no adapter", "hcan:0.1"},
      {"zlg:256.0", "\"256\" is no adapter number", "0 to 255"},
      {"zlg:0.256", "\"256\" is no channel", "0 to 255"},
      {"zlg:SN.x", "\"x\" is no channel", "0 to 255"},
      {"serial:", "without a port", "serial:/dev/ttyUSB0"},
      {"serial:@9600", "without a port", "serial:/dev/ttyUSB0"},
      {"serial:/dev/ttyUSB0@fast", "\"fast\" is no rate", "300 to 12000000"},
      {"serial:/dev/ttyUSB0@299", "\"299\" is no rate", "300 to 12000000"},
      {"serial:/dev/by-path/pci-0000:00:14", "\"00\" is no id", "such as @115200"},
  };
  for (const auto& fault : faults) {
    SCOPED_TRACE(fault.text.substr(0, 60));
    const auto read = HandAddress::Parse(fault.text);
    ASSERT_FALSE(read);
    EXPECT_EQ(read.failure().kind, FailureKind::BAD_ARGUMENT);
    EXPECT_THAT(read.failure().text, HasSubstr(fault.part));
    EXPECT_THAT(read.failure().text, HasSubstr(fault.expected));
  }
}

TEST(PlainText, IsForPeople) {
  using namespace std::string_literals;
  EXPECT_EQ(PlainText("KorvaneBrisa\0\0\0\0"s), "KorvaneBrisa");
  EXPECT_EQ(PlainText("AB 1 \xff\xff \x01"s), "AB 1");
  EXPECT_EQ(PlainText("\x1b[31mred\0!"s), "?[31mred?!");
  EXPECT_EQ(PlainText("\0 \xff"s), "");
}

}  // namespace
}  // namespace talvera::korvane
