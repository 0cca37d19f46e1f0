// What the agent would hand to a handler, as far as the iterator and a module beneath it look at
// it.
#include "agent/iterator/DirectQuestion.h"
#include "agent/iterator/HostIterator.h"
#include <new>

namespace Agent::TableIterator {

DirectQuestion::DirectQuestion() : pdu_(snmp_pdu_create(SNMP_MSG_GET)) {
  if (!pdu_)
    throw std::bad_alloc();
  pdu_->version = SNMP_VERSION_2c;
  pdu_->flags |= UCD_MSG_FLAG_ALWAYS_IN_VIEW;
  session_.pdu = pdu_.get();
  session_.reqinfo = &information_;
  session_.vbcount = 1;
  information_.asp = &session_;
}

DirectQuestion::~DirectQuestion() {
  snmp_free_var_internals(&varbind_);
}

netsnmp_variable_list const * DirectQuestion::ask(int mode, SubIds name) {
  auto * const subtree = netsnmp_subtree_find(name.data(), name.size(), nullptr, "");
  if (subtree == nullptr || subtree->reginfo == nullptr)
    return nullptr;
  snmp_set_var_typed_value(&varbind_, ASN_NULL, nullptr, 0);
  if (snmp_set_var_objid(&varbind_, name.data(), name.size()) != SNMPERR_SUCCESS)
    return nullptr;
  pdu_->command = mode;
  session_.mode = mode;
  information_.mode = mode;
  netsnmp_request_info request{};
  request.requestvb = &varbind_;
  request.agent_req_info = &information_;
  request.index = 1;
  request.range_end = subtree->end_a;
  request.range_end_len = subtree->end_len;
  request.subtree = subtree;
  session_.requests = &request;
  auto const isAnswered = answerAlone(*subtree->reginfo, information_, request);
  netsnmp_free_request_data_sets(&request); // what a module has put there
  return isAnswered && varbind_.type != ASN_NULL && varbind_.type != ASN_PRIV_RETRY ? &varbind_
                                                                                    : nullptr;
}

} // namespace Agent::TableIterator
