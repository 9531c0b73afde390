#include "Platform/Linux/Kernel/MemoryMapping.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <utility>

#include "Base/FileDescriptor.h"

namespace ostravel::linuxplatform {
namespace {

constexpr std::size_t kSize = 4096;

FileDescriptor makeFile() {
  FileDescriptor file(::memfd_create("mapped", MFD_CLOEXEC));
  EXPECT_EQ(::ftruncate(file.get(), kSize), 0);
  return file;
}

TEST(MemoryMappingTest, SharesTheContentOfAFile) {
  const FileDescriptor file = makeFile();
  const auto written = MemoryMapping::ofFile(file.get(), kSize, PROT_READ | PROT_WRITE);
  const auto read = MemoryMapping::ofFile(file.get(), kSize, PROT_READ);
  ASSERT_TRUE(written);
  ASSERT_TRUE(read);
  *written->as<std::uint32_t>() = 7;
  EXPECT_EQ(*read->as<const std::uint32_t>(), 7U);
}

TEST(MemoryMappingTest, MovesWithItsContent) {
  const FileDescriptor file = makeFile();
  MemoryMapping first = *MemoryMapping::ofFile(file.get(), kSize, PROT_READ | PROT_WRITE);
  *first.as<std::uint32_t>() = 7;
  MemoryMapping second(std::move(first));
  MemoryMapping third;
  third = std::move(second);
  ASSERT_NE(third.as<std::uint32_t>(), nullptr);
  EXPECT_EQ(*third.as<std::uint32_t>(), 7U);
}

TEST(MemoryMappingTest, ReportsAFailure) {
  const auto mapping = MemoryMapping::ofFile(-1, kSize, PROT_READ);
  ASSERT_FALSE(mapping);
  EXPECT_EQ(mapping.error().domain, platform::kPOSIXErrorDomain);
  EXPECT_EQ(mapping.error().code, EBADF);
}

}  // namespace
}  // namespace ostravel::linuxplatform
