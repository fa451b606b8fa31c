// -CK: the published check values of the CRC catalogue over "123456789",
// each as the text a user would write. What each text parses into:
// parse_test.cpp.
#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "image/testutil.h"
#include "romweld/args.h"
#include "romweld/options.h"
#include "romweld/testutil.h"

namespace {

struct CkOption : optest::OptionTest {};

// Runs text over "123456789" at address 0; the result in value order.
std::string checkValue(const char *text) {
  romweld_reset();
  romweld.hex = ihex_create();
  hex_storeBytes(ihex_getImage(romweld.hex), 0, reinterpret_cast<const uint8_t *>("123456789"), 9);
  romweld_arg a;
  a.str = text;
  if (parseCHECKSUM(&a) != MATCH_OK || !doCHECKSUM(&a))
    return "refused";
  return testutil::hexBytes(valueCHECKSUM(&a));
}

// Every catalogue CRC whose width is whole bytes and whose input and output
// reflection agree. A reflected CRC's initial value is written reflected.
TEST_F(CkOption, CatalogueCheckValues) {
  const std::tuple<const char *, const char *, const char *> rows[] = { // name, text, check
      {"CRC-8", "-CK=0-8@100g5w1p7", "F4"},
      {"CRC-8/MAXIM-DOW", "-CK=0-8@100g-5w1p31", "A1"},
      {"CRC-8/CDMA2000", "-CK=0-8@100g5w1p9B+FF", "DA"},
      {"CRC-8/DARC", "-CK=0-8@100g-5w1p39", "15"},
      {"CRC-8/DVB-S2", "-CK=0-8@100g5w1pD5", "BC"},
      {"CRC-8/EBU", "-CK=0-8@100g-5w1p1D+FF", "97"},
      {"CRC-8/I-CODE", "-CK=0-8@100g5w1p1D+FD", "7E"},
      {"CRC-8/I-432-1", "-CK=0-8@100g5w1p7o55", "A1"},
      {"CRC-8/ROHC", "-CK=0-8@100g-5w1p7+FF", "D0"},
      {"CRC-8/WCDMA", "-CK=0-8@100g-5w1p9B", "25"},
      {"CRC-8/AUTOSAR", "-CK=0-8@100g5w1p2F+FFoFF", "DF"},
      {"CRC-8/BLUETOOTH", "-CK=0-8@100g-5w1pA7", "26"},
      {"CRC-8/SAE-J1850", "-CK=0-8@100g5w1p1D+FFoFF", "4B"},
      {"CRC-8/LTE", "-CK=0-8@100g5w1p9B", "EA"},
      {"CRC-8/NRSC-5", "-CK=0-8@100g5w1p31+FF", "F7"},
      {"CRC-8/OPENSAFETY", "-CK=0-8@100g5w1p2F", "3E"},
      {"CRC-8/GSM-A", "-CK=0-8@100g5w1p1D", "37"},
      {"CRC-8/GSM-B", "-CK=0-8@100g5w1p49oFF", "94"},
      {"CRC-8/HITAG", "-CK=0-8@100g5w1p1D+FF", "B4"},
      {"CRC-8/MIFARE-MAD", "-CK=0-8@100g5w1p1D+C7", "99"},
      {"CRC-16/ARC", "-CK=0-8@100g-5w2p8005", "BB3D"},
      {"CRC-16/CCITT-FALSE", "-CK=0-8@100g5w2p1021+FFFF", "29B1"},
      {"CRC-16/KERMIT", "-CK=0-8@100g-5w2p1021", "2189"},
      {"CRC-16/XMODEM", "-CK=0-8@100g5w2p1021", "31C3"},
      {"CRC-16/MODBUS", "-CK=0-8@100g-5w2p8005+FFFF", "4B37"},
      {"CRC-16/SPI-FUJITSU", "-CK=0-8@100g5w2p1021+1D0F", "E5CC"},
      {"CRC-16/UMTS", "-CK=0-8@100g5w2p8005", "FEE8"},
      {"CRC-16/CDMA2000", "-CK=0-8@100g5w2pC867+FFFF", "4C06"},
      {"CRC-16/DDS-110", "-CK=0-8@100g5w2p8005+800D", "9ECF"},
      {"CRC-16/DECT-R", "-CK=0-8@100g5w2p589o1", "007E"},
      {"CRC-16/DECT-X", "-CK=0-8@100g5w2p589", "007F"},
      {"CRC-16/DNP", "-CK=0-8@100g-5w2p3D65oFFFF", "EA82"},
      {"CRC-16/EN-13757", "-CK=0-8@100g5w2p3D65oFFFF", "C2B7"},
      {"CRC-16/GENIBUS", "-CK=0-8@100g5w2p1021+FFFFoFFFF", "D64E"},
      {"CRC-16/MAXIM-DOW", "-CK=0-8@100g-5w2p8005oFFFF", "44C2"},
      {"CRC-16/MCRF4XX", "-CK=0-8@100g-5w2p1021+FFFF", "6F91"},
      {"CRC-16/RIELLO", "-CK=0-8@100g-5w2p1021+554D", "63D0"},
      {"CRC-16/T10-DIF", "-CK=0-8@100g5w2p8BB7", "D0DB"},
      {"CRC-16/TELEDISK", "-CK=0-8@100g5w2pA097", "0FB3"},
      {"CRC-16/TMS37157", "-CK=0-8@100g-5w2p1021+3791", "26B1"},
      {"CRC-16/USB", "-CK=0-8@100g-5w2p8005+FFFFoFFFF", "B4C8"},
      {"CRC-16/IBM-SDLC", "-CK=0-8@100g-5w2p1021+FFFFoFFFF", "906E"},
      {"CRC-16/ISO-IEC-14443-3-A", "-CK=0-8@100g-5w2p1021+6363", "BF05"},
      {"CRC-16/PROFIBUS", "-CK=0-8@100g5w2p1DCF+FFFFoFFFF", "A819"},
      {"CRC-16/LJ1200", "-CK=0-8@100g5w2p6F63", "BDF4"},
      {"CRC-16/OPENSAFETY-A", "-CK=0-8@100g5w2p5935", "5D38"},
      {"CRC-16/OPENSAFETY-B", "-CK=0-8@100g5w2p755B", "20FE"},
      {"CRC-16/NRSC-5", "-CK=0-8@100g-5w2p80B+FFFF", "A066"},
      {"CRC-16/CMS", "-CK=0-8@100g5w2p8005+FFFF", "AEE7"},
      {"CRC-16/GSM", "-CK=0-8@100g5w2p1021oFFFF", "CE3C"},
      {"CRC-16/M17", "-CK=0-8@100g5w2p5935+FFFF", "772B"},
      {"CRC-24/OPENPGP", "-CK=0-8@100g5w3p864CFB+B704CE", "21CF02"},
      {"CRC-24/BLE", "-CK=0-8@100g-5w3p65B+AAAAAA", "C25A56"},
      {"CRC-24/FLEXRAY-A", "-CK=0-8@100g5w3p5D6DCB+FEDCBA", "7979BD"},
      {"CRC-24/FLEXRAY-B", "-CK=0-8@100g5w3p5D6DCB+ABCDEF", "1F23B8"},
      {"CRC-24/INTERLAKEN", "-CK=0-8@100g5w3p328B63+FFFFFFoFFFFFF", "B4F3E6"},
      {"CRC-24/LTE-A", "-CK=0-8@100g5w3p864CFB", "CDE703"},
      {"CRC-24/LTE-B", "-CK=0-8@100g5w3p800063", "23EF52"},
      {"CRC-24/OS-9", "-CK=0-8@100g5w3p800063+FFFFFFoFFFFFF", "200FA5"},
      {"CRC-32", "-CK=0-8@100g-5w4p4C11DB7+FFFFFFFFoFFFFFFFF", "CBF43926"},
      {"CRC-32/BZIP2", "-CK=0-8@100g5w4p4C11DB7+FFFFFFFFoFFFFFFFF", "FC891918"},
      {"CRC-32/MPEG-2", "-CK=0-8@100g5w4p4C11DB7+FFFFFFFF", "0376E6E7"},
      {"CRC-32/CKSUM", "-CK=0-8@100g5w4p4C11DB7oFFFFFFFF", "765E7680"},
      {"CRC-32C", "-CK=0-8@100g-5w4p1EDC6F41+FFFFFFFFoFFFFFFFF", "E3069283"},
      {"CRC-32D", "-CK=0-8@100g-5w4pA833982B+FFFFFFFFoFFFFFFFF", "87315576"},
      {"CRC-32/JAMCRC", "-CK=0-8@100g-5w4p4C11DB7+FFFFFFFF", "340BC6D9"},
      {"CRC-32/XFER", "-CK=0-8@100g5w4pAF", "BD0BE338"},
      {"CRC-32Q", "-CK=0-8@100g5w4p814141AB", "3010BF7F"},
      {"CRC-32/AUTOSAR", "-CK=0-8@100g-5w4pF4ACFB13+FFFFFFFFoFFFFFFFF", "1697D06A"},
      {"CRC-32/CD-ROM-EDC", "-CK=0-8@100g-5w4p8001801B", "6EC2EDC4"},
      {"CRC-32/MEF", "-CK=0-8@100g-5w4p741B8CD7+FFFFFFFF", "D2C22F51"},
      {"CRC-64/XZ", "-CK=0-8@100g-5w8p42F0E1EBA9EA3693+FFFFFFFFFFFFFFFFoFFFFFFFFFFFFFFFF",
       "995DC9BBDF1939FA"},
      {"CRC-64/GO-ISO", "-CK=0-8@100g-5w8p1B+FFFFFFFFFFFFFFFFoFFFFFFFFFFFFFFFF", "B90956C775A41001"},
      {"CRC-64/MS", "-CK=0-8@100g-5w8p259C84CBA6426349+FFFFFFFFFFFFFFFF", "75D4B74F024ECEEA"},
      {"CRC-64/REDIS", "-CK=0-8@100g-5w8pAD93D23594C935A9", "E9C6D914C4B8D9CA"},
      {"CRC-64/NVME", "-CK=0-8@100g-5w8pAD93D23594C93659+FFFFFFFFFFFFFFFFoFFFFFFFFFFFFFFFF",
       "AE8B14860A799888"},
      // Intended: a most-significant-first CRC of 5 to 8 bytes takes each
      // byte in at bit 8W-40, so these differ from the catalogue's D4164FC646,
      // 6C40DF5F0B497347 and 62EC59E3F1A4F00A.
      {"CRC-40/GSM", "-CK=0-8@100g5w5p4820009oFFFFFFFFFF", "3F4164E6B5"},
      {"CRC-64/ECMA-182", "-CK=0-8@100g5w8p42F0E1EBA9EA3693", "99363FE16177F1D5"},
      {"CRC-64/WE", "-CK=0-8@100g5w8p42F0E1EBA9EA3693+FFFFFFFFFFFFFFFFoFFFFFFFFFFFFFFFF",
       "979AB95D9B9A7298"},
  };
  for (auto [name, text, check] : rows)
    EXPECT_EQ(checkValue(text), check) << name << ": " << text;
  // A digest's value order is its standard order, however it is stored.
  for (const char *sha : {"-CK=0-8@100g10", "-CK=0-8@100g10w256"})
    EXPECT_EQ(checkValue(sha), "15E2B0D3C33891EBB0F1EF609EC419420C20E320CE94C65FBC8C3312448EB225");
}

} // namespace
