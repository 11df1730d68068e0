#include "conversion/conversion_store.h"

#include <new>

namespace mrwl {

void ConversionStore::Clear() noexcept {
  Mapping.reset();
  Security = {};
  RunApp = {};
  ReservedFlag1 = false;
  ReservedFlag2 = false;
  ReservedText.Clear();
  ReservedFlag3 = false;
  ReservedNumber = 0;
  Portfolio = false;
  PortfolioOutputPath.Clear();
  PortfolioUser.Clear();
  PortfolioFolder.Clear();
  Jobs.clear();
}

ConversionJob* ConversionStore::NewJob() noexcept {
  try {
    Jobs.push_back(std::make_unique<ConversionJob>());
    return Jobs.back().get();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

}  // namespace mrwl
