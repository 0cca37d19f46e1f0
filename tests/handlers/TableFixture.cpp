// The parts of TableFixture.h that do not depend on a table.
#include "tests/handlers/TableFixture.h"
#include <cstdlib>

namespace TunnelIntfSnmp {

TableFixture::TableFixture(EntryPoint initialise, EntryPoint unregister)
    : agent_(InProcessAgent::instance()),
      unregister_(unregister) {
  SnmpUtil::entityRootIs([this](std::string_view path) {
    return path == "snmp/tunnelIntf/tunnelMib" ? Zel::Ptr<Zel::Entity>(mib_) : nullptr;
  });
  initialise("");
}

TableFixture::~TableFixture() {
  unregister_("");
  SnmpUtil::entityRootIs({});
}

Chain::Chain(std::size_t length, int mode) : requests(length), varbinds(length) {
  agent.mode = mode;
  for (std::size_t i = 0; i != length; ++i) {
    snmp_varlist_add_variable(&varbinds[i], nullptr, 0, ASN_NULL, nullptr, 0);
    requests[i].requestvb = varbinds[i];
    requests[i].agent_req_info = &agent;
    requests[i].next = i + 1 == length ? nullptr : &requests[i + 1];
  }
}

Chain::~Chain() {
  for (std::size_t i = 0; i != requests.size(); ++i) {
    netsnmp_free_request_data_sets(&requests[i]);
    snmp_free_varbind(varbinds[i]);
  }
}

void Chain::found(std::size_t request, void * dataContext, unsigned int column) {
  static auto const keep = [](void *) {};
  auto * info = SNMP_MALLOC_TYPEDEF(netsnmp_table_request_info);
  info->colnum = column;
  netsnmp_request_add_list_data(&requests[request],
                                netsnmp_create_data_list(TABLE_HANDLER_NAME, info, std::free));
  if (dataContext != nullptr)
    netsnmp_request_add_list_data(&requests[request],
                                  netsnmp_create_data_list(TABLE_ITERATOR_NAME, dataContext, keep));
}

} // namespace TunnelIntfSnmp
