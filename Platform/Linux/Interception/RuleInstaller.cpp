#include "Platform/Linux/Interception/RuleInstaller.h"

#include <utility>

namespace ostravel::linuxplatform {

using platform::OptionalError;
using OfferPoint = InterceptionTable::OfferPoint;

RuleInstaller::RuleInstaller(Plan plan, std::shared_ptr<platform::Log> log)
    : plan_(std::move(plan)), log_(std::move(log)) {}

platform::Result<std::unique_ptr<InterceptionTable>> RuleInstaller::install() {
  // First, so that changes after the search are found later.
  otherRules_.mayHaveChanged();
  const auto found = otherRules_.find();
  isLate_ = isLate_ || (plan_.canResend && found.onOutput);
  auto installed =
      InterceptionTable::install(plan_.settings, plan_.marks, plan_.queueNumber, plan_.listeners,
                                 isLate_ ? OfferPoint::afterFilters : OfferPoint::beforeFilters);
  if (!installed) {
    return installed;
  }
  auto translation = TranslationTable::install(plan_.guardedSocket, plan_.marks, found.atRaw);
  if (translation) {
    (*installed)->keep(*std::move(translation));
  } else {
    log_->error(
        "OstravelProxy: A VPN may drop answers, and open tunnels may hang if this process is "
        "killed: %{public}s",
        {translation.error().localizedDescription});
  }
  return installed;
}

OptionalError RuleInstaller::adjust(InterceptionTable& table) {
  TranslationTable* const translation = table.translation();
  const bool canMoveOffer = plan_.canResend && !isLate_;
  const bool canHideAnswers = translation != nullptr && !translation->hidesAnswers();
  if ((!canMoveOffer && !canHideAnswers) || !otherRules_.mayHaveChanged()) {
    return std::nullopt;
  }
  const auto found = otherRules_.find();
  if (canHideAnswers && found.atRaw) {
    adjustTranslation(*translation);
  }
  return canMoveOffer && found.onOutput ? adjustOffer(table) : std::nullopt;
}

OptionalError RuleInstaller::adjustOffer(InterceptionTable& table) {
  // Before any packet can be queued there.
  isLate_ = true;
  auto error = table.offerAfterFilters();
  if (!error) {
    log_->info(
        "OstravelProxy: Other programs have rules for outgoing packets; flows are now offered "
        "after them");
  }
  return error;
}

void RuleInstaller::adjustTranslation(TranslationTable& table) {
  if (const auto error = table.hideAnswers()) {
    log_->error("OstravelProxy: A VPN may drop answers: %{public}s", {error->localizedDescription});
  } else {
    log_->info("OstravelProxy: Answers are now hidden from other programs' rules");
  }
}

}  // namespace ostravel::linuxplatform
