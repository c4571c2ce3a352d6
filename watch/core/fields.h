// The numbers of each table, with all their names: every form goes by these rows. A number that a
// Snapshot gains gets a row here, and all forms show it.
//
// A name is in full words, with its unit at the end. Packets between two hosts are counted on both
// sides, so their numbers come in pairs, sent first; both have one heading.
//
// All are counts, of an interval or since the start. The one value that is none is the sender's
// reliability (SnapHost::reliability), by kReliability.

#pragma once

#include <cstdint>

#include "trace/counts/snapshot.h"

enum class FieldSide : uint8_t { kOnly, kSent, kReceived };

template <typename Record>
struct Field {
    const char* name;     // for programs: fixed for good
    const char* heading;  // for screens: at most 6 characters
    const char* metric;   // a counter's name by the rules of Prometheus
    const char* help;
    uint64_t Record::*value;
    FieldSide side = FieldSide::kOnly;
};

inline constexpr Field<SnapHost> kMulticastFields[] = {
    {"data_packets", "Data", "pelmo_multicast_data_packets_total", "New data packets.",
     &SnapHost::data},
    {"payload_bytes", "Bytes", "pelmo_multicast_payload_bytes_total",
     "Payload bytes of new data packets.", &SnapHost::bytes},
    {"null_packets", "Null", "pelmo_multicast_null_packets_total",
     "Null packets: the sender had nothing to send.", &SnapHost::nulls},
    {"repeated_packets", "Rdata", "pelmo_multicast_repeated_packets_total",
     "Data packets that came again.", &SnapHost::rdata},
    {"repeated_bytes", "Rbytes", "pelmo_multicast_repeated_bytes_total",
     "Payload bytes of data packets that came again.", &SnapHost::rbytes},
    {"missed_packets", "Gaps", "pelmo_multicast_missed_packets_total",
     "Sequence numbers passed over: packets that didn't reach this machine.", &SnapHost::gaps},
    {"bad_packets", "Bad", "pelmo_multicast_bad_packets_total", "Packets with a fault.",
     &SnapHost::bad},
};

struct ValueName {
    const char* name;
    const char* heading;
    const char* metric;  // a gauge's
    const char* help;
};

// May be any double: not a number, infinite, negative.
inline constexpr ValueName kReliability = {
    "reliability_seconds", "R", "pelmo_multicast_reliability_seconds",
    "Reliability that the sender last told in a null packet."};

inline constexpr Field<RlCounters> kRetransmissionFields[] = {
    {"requests_sent", "Rreq", "pelmo_retransmission_requests_sent_total",
     "Retransmission requests that the host sent.", &RlCounters::rreqSent, FieldSide::kSent},
    {"requests_received", "Rreq", "pelmo_retransmission_requests_received_total",
     "Retransmission requests sent to the host.", &RlCounters::rreqRecv, FieldSide::kReceived},
    {"requested_packets_sent", "Rseq", "pelmo_retransmission_requested_packets_sent_total",
     "Packets that the host asked for.", &RlCounters::rseqSent, FieldSide::kSent},
    {"requested_packets_received", "Rseq", "pelmo_retransmission_requested_packets_received_total",
     "Packets that the host was asked for.", &RlCounters::rseqRecv, FieldSide::kReceived},
    {"rejects_sent", "Rrej", "pelmo_retransmission_rejects_sent_total",
     "Refusals of a retransmission that the host sent.", &RlCounters::rrejSent, FieldSide::kSent},
    {"rejects_received", "Rrej", "pelmo_retransmission_rejects_received_total",
     "Refusals of a retransmission sent to the host.", &RlCounters::rrejRecv, FieldSide::kReceived},
    {"bad_packets_sent", "Bad", "pelmo_retransmission_bad_packets_sent_total",
     "Packets with a fault that the host sent.", &RlCounters::badSent, FieldSide::kSent},
    {"bad_packets_received", "Bad", "pelmo_retransmission_bad_packets_received_total",
     "Packets with a fault sent to the host.", &RlCounters::badRecv, FieldSide::kReceived},
};

inline constexpr Field<PtpCounters> kPointToPointFields[] = {
    {"data_packets_sent", "Data", "pelmo_point_to_point_data_packets_sent_total",
     "Data packets that the host sent.", &PtpCounters::dataSent, FieldSide::kSent},
    {"data_packets_received", "Data", "pelmo_point_to_point_data_packets_received_total",
     "Data packets sent to the host.", &PtpCounters::dataRecv, FieldSide::kReceived},
    {"payload_bytes_sent", "Bytes", "pelmo_point_to_point_payload_bytes_sent_total",
     "Payload bytes that the host sent.", &PtpCounters::bytesSent, FieldSide::kSent},
    {"payload_bytes_received", "Bytes", "pelmo_point_to_point_payload_bytes_received_total",
     "Payload bytes sent to the host.", &PtpCounters::bytesRecv, FieldSide::kReceived},
    {"acknowledgement_requests_sent", "AckR",
     "pelmo_point_to_point_acknowledgement_requests_sent_total",
     "Requests for an acknowledgement that the host sent.", &PtpCounters::ackmeSent,
     FieldSide::kSent},
    {"acknowledgement_requests_received", "AckR",
     "pelmo_point_to_point_acknowledgement_requests_received_total",
     "Requests for an acknowledgement sent to the host.", &PtpCounters::ackmeRecv,
     FieldSide::kReceived},
    {"acknowledgements_sent", "Ack", "pelmo_point_to_point_acknowledgements_sent_total",
     "Acknowledgements that the host sent.", &PtpCounters::ackSent, FieldSide::kSent},
    {"acknowledgements_received", "Ack", "pelmo_point_to_point_acknowledgements_received_total",
     "Acknowledgements sent to the host.", &PtpCounters::ackRecv, FieldSide::kReceived},
    {"loss_reports_sent", "Nak", "pelmo_point_to_point_loss_reports_sent_total",
     "Reports of loss that the host sent.", &PtpCounters::nakSent, FieldSide::kSent},
    {"loss_reports_received", "Nak", "pelmo_point_to_point_loss_reports_received_total",
     "Reports of loss sent to the host.", &PtpCounters::nakRecv, FieldSide::kReceived},
    {"bad_packets_sent", "Bad", "pelmo_point_to_point_bad_packets_sent_total",
     "Packets with a fault that the host sent.", &PtpCounters::badSent, FieldSide::kSent},
    {"bad_packets_received", "Bad", "pelmo_point_to_point_bad_packets_received_total",
     "Packets with a fault sent to the host.", &PtpCounters::badRecv, FieldSide::kReceived},
};

inline constexpr Field<SnapSubject> kSubjectFields[] = {
    {"messages", "Msgs", "pelmo_subject_messages_total", "Messages on the subject.",
     &SnapSubject::msgs},
    {"message_bytes", "Bytes", "pelmo_subject_message_bytes_total",
     "Bytes of the messages on the subject.", &SnapSubject::bytes},
};

inline constexpr Field<SnapSubjectHost> kSubjectSenderFields[] = {
    {"messages", "Msgs", "pelmo_subject_sender_messages_total",
     "Messages of the sender on the subject.", &SnapSubjectHost::msgs},
    {"message_bytes", "Bytes", "pelmo_subject_sender_message_bytes_total",
     "Bytes of the messages of the sender on the subject.", &SnapSubjectHost::bytes},
};

// The numbers of the whole Snapshot, beside its tables.
inline constexpr Field<SnapHeader> kSourceFields[] = {
    {"frames", "Frames", "pelmo_frames_total", "Frames that came from the source.",
     &SnapHeader::frames},
    {"packets", "Packet", "pelmo_packets_total", "Frames with an IP packet.", &SnapHeader::packets},
    {"bus_packets", "Bus", "pelmo_bus_packets_total", "Packets of the bus.",
     &SnapHeader::oskaPackets},
};

inline constexpr Field<SnapSource> kLossFields[] = {
    {"kernel_dropped_frames", "Kernel", "pelmo_kernel_dropped_frames_total",
     "Frames lost because the system's buffer was full: the program was too slow.",
     &SnapSource::kernelDrops},
    {"interface_dropped_frames", "Card", "pelmo_interface_dropped_frames_total",
     "Frames lost by the interface or its driver.", &SnapSource::interfaceDrops},
};

// Of FaultCount, once for each kind (trace/counts/faults.h).
inline constexpr ValueName kFaults = {"packets", "Faults", "pelmo_fault_packets_total",
                                      "Packets with a fault, by its kind."};
