#pragma once
// Events as the channel reader renders them: classic key=value text and XML.

namespace skorva::test {

inline const char* const kClassicLogon =
    "01/31/2024 09:05:07 PM\n"
    "LogName=Security\n"
    "EventCode=4624\n"
    "EventType=0\n"
    "ComputerName=dc01.corp.example\n"
    "User=NOT_TRANSLATED\n"
    "Sid=S-1-5-18\n"
    "SidType=0\n"
    "SourceName=Microsoft Windows security auditing.\n"
    "Type=Information\n"
    "RecordNumber=386038\n"
    "Keywords=Audit Success\n"
    "TaskCategory=Logon\n"
    "OpCode=Info\n"
    "Message=An account was successfully logged on.\n"
    "\n"
    "Subject:\n"
    "\tSecurity ID:\t\tS-1-5-18\n"
    "\tAccount Name:\t\tDC01$\n"
    "\n"
    "Logon Information:\n"
    "\tLogon Type:\t\t3\n"
    "Detail=not a field, part of the message\n";

inline const char* const kClassicFailedLogonCrLf =
    "01/31/2024 09:06:00 PM\r\n"
    "LogName=Security\r\n"
    "EventCode=4625\r\n"
    "ComputerName=dc01.corp.example\r\n"
    "Type=Information\r\n"
    "RecordNumber=386039\r\n"
    "Message=An account failed to log on.\r\n"
    "\tLogon Type:\t\t10\r\n";

inline const char* const kXmlLogon =
    "<Event xmlns='http://schemas.microsoft.com/win/2004/08/events/event'><System>"
    "<Provider Name='Microsoft-Windows-Security-Auditing' Guid='{54849625-5478-4994-A5BA-3E3B0328C30D}'/>"
    "<EventID Qualifiers='0'>4624</EventID><Version>2</Version><Level>0</Level><Task>12544</Task>"
    "<Opcode>0</Opcode><Keywords>0x8020000000000000</Keywords>"
    "<TimeCreated SystemTime='2024-01-31T21:05:07.1234567Z'/><EventRecordID>386038</EventRecordID>"
    "<Correlation/><Execution ProcessID='612' ThreadID='4620'/><Channel>Security</Channel>"
    "<Computer>dc01.corp.example</Computer><Security UserID=\"S-1-5-18\"/></System>"
    "<EventData><Data Name='SubjectUserSid'>S-1-5-18</Data><Data Name='TargetUserName'>bob</Data>"
    "<Data Name='TargetDomainName'>CORP</Data><Data Name='LogonType'>3</Data><Data Name='Empty'/>"
    "<Data Name='IpAddress'>10.1.2.3</Data></EventData>"
    "<RenderingInfo Culture='en-US'><Message>An account was successfully logged on.</Message>"
    "<Level>Information</Level></RenderingInfo></Event>";

inline const char* const kXmlLogCleared =
    "<Event xmlns='http://schemas.microsoft.com/win/2004/08/events/event'><System>"
    "<Provider Name='Microsoft-Windows-Eventlog'/><EventID>1102</EventID><Level>4</Level><Task>104</Task>"
    "<EventRecordID>386040</EventRecordID><Channel>Security</Channel><Computer>dc01</Computer><Security/>"
    "</System><UserData><LogFileCleared xmlns='http://manifests.microsoft.com/win/2004/08/windows/eventlog'>"
    "<SubjectUserSid>S-1-5-21-1-2-3-500</SubjectUserSid><SubjectUserName>admin</SubjectUserName>"
    "</LogFileCleared></UserData></Event>";

}  // namespace skorva::test
