#include "records/debug_dump.h"

#include "flows/capture.h"
#include "flows/kernel_side.h"
#include "unit/records/records_fixture.h"
#include "unit/records/report_message.h"

namespace {

class DebugDump : public RecordsTest {
  protected:
    static void dumpAll() {
        debugPrintAmEnfFlowDb();
        debugPrintFt4Queue();
        debugPrintFt6Queue();
        debugPrintFt6MonQueue();
        debugPrintCounter();
    }
};

TEST_F(DebugDump, EntriesShowTheNamesOfTheEnforcementList) {
    const capture_flow_info office = flow(1, 1);
    const capture_flow_info video = flow(2, 2);
    const capture_flow_info dns6 = flow(3, 0, AM_IP_TYPE_IPV6);
    amUpdateEnfFlowDb(&video);
    amUpdateEnfFlowDb(&office);
    amUpdateEnfFlowDb6(&dns6);
    amUpdateMonFlow6(&dns6);
    StatsMessage().count(2).report(reportOf(office)).report(reportOf(dns6)).deliver();
    log_.forget();
    dumpAll();
    const std::string text = log_.text();
    size_t at = 0;
    for (const char *line : {"App-Name mail Grp-Name office src_ip 10.0.0.1, dst ip 192.168.0.1, src_port "
                             "40001, dst_port 443, l4_proto "
                             "6\n",
                             "App-Name - Grp-Name - src_ip 10.0.0.2, dst ip 192.168.0.1, src_port 40002, "
                             "dst_port 443, l4_proto 6\n",
                             "amFt4Queue ft4CommonIndex 1\n",
                             "src-ip 10.0.0.1 dst-ip 192.168.0.1 src_port 40001 dst_port 443 l4_proto 6 "
                             "app-name mail grp-name office "
                             "pkt-count 3",
                             "amFt6Queue ft6CommonIndex 1\n",
                             "src-ip 2001:db8::3 dst-ip 2001:db8:0:1::53 src_port 40003 dst_port 443 "
                             "l4_proto 6 app-name dns grp-name - "
                             "pkt-count 3",
                             "amMonFt6Queue amMonFlow6Counter 1\n",
                             "src-ip 2001:db8::3 dst-ip 2001:db8:0:1::53 src_port 40003 dst_port 443 "
                             "l4_proto 6 app-name dns grp-name -",
                             "Packet Counter ["}) {
        at = text.find(line, at);
        ASSERT_NE(at, std::string::npos) << line << "in\n" << text;
    }
}

}  // namespace
