{ libtarvoafipdriver for Free Pascal (and Lazarus) and Delphi-style Pascal.

  By default the twelve functions are linked at build time as cdecl externals (Free Pascal:
  -Fl<directory of libtarvoafipdriver.so>). Define TARVO_DYNAMIC to load the library at run time
  instead: call LoadTarvoAfip first; it looks for the path given, else TARVO_LIBRARY, else
  libtarvoafipdriver.so.1 through the dynamic loader's search path.

  Text is passed as PAnsiChar (UTF-8 bytes, NUL-terminated). The library's state is process-wide:
  serialise every call.

  TLS verification is off unless the process's environment asks for it: TARVO_TLS_VERIFY=1 checks
  the servers' certificates and host names, against the PEM certificates in the file named by
  TARVO_CA_FILE, else the system's store. The library reads both at every SendSOAP, so they hold
  for the whole process: set them in the environment the program starts with. }
unit tarvoafip;

{$IFDEF FPC}{$MODE DELPHI}{$ENDIF}
{$H+}

interface

uses
  SysUtils{$IFDEF TARVO_DYNAMIC}{$IFDEF FPC}, dynlibs{$ENDIF}{$ENDIF};

const
  TarvoAfipSoname = 'libtarvoafipdriver.so.1';

  { Result codes, as in tarvoafipdriver.h. }
  AFIP_OK = 0;
  AFIP_CERTIFICATE_ERROR = 1;
  AFIP_NOT_AUTHORIZED = 2;
  AFIP_CERTIFICATE_EXPIRED = 3;
  AFIP_UNUSED_4 = 4;
  AFIP_CRYPTO_ERROR = 5;
  AFIP_CERTIFICATE_EXPIRED_2 = 6;
  AFIP_WSAA_URL_NOT_SET = 7;
  AFIP_WSAA_SERVICE_NOT_SET = 8;
  AFIP_TICKET_ALREADY_VALID = 9;
  AFIP_BUFFER_TOO_SMALL = 10;
  AFIP_TICKET_TOO_OLD = 11;
  AFIP_WS_URL_NOT_SET = 12;
  AFIP_REQUEST_NOT_XML = 13;
  AFIP_RESPONSE_NOT_XML = 14;
  AFIP_TIMEOUT = 15;
  AFIP_WSAA_TLS_FAILURE = 16;
  AFIP_WSAA_HTTP_FAILURE = 17;

type
  TCopyOut = function(Buffer: PAnsiChar; BufferLength: UInt32; DataSize: PUInt32): Int32; cdecl;

  { A non-zero result code, raised by the checked calls below. }
  ETarvoAfip = class(Exception)
  public
    Code: Int32;
    constructor CreateCode(ACode: Int32);
  end;

{$IFNDEF TARVO_DYNAMIC}
const
  TarvoAfipLibrary = {$IFDEF FPC}'tarvoafipdriver'{$ELSE}TarvoAfipSoname{$ENDIF};

procedure GetAFIPVersion(Version: PAnsiChar); cdecl; external TarvoAfipLibrary;
procedure SetWSAA(Url: PAnsiChar); cdecl; external TarvoAfipLibrary;
procedure SetWSAACredentials(CertificatePath, CertificatePass: PAnsiChar); cdecl; external TarvoAfipLibrary;
procedure SetWSAAService(Service: PAnsiChar); cdecl; external TarvoAfipLibrary;
procedure SetWSUrl(Url: PAnsiChar); cdecl; external TarvoAfipLibrary;
procedure SetSecurity(Level: Int32); cdecl; external TarvoAfipLibrary;
procedure SetWebProxy(ProxyUrl, ProxyUsername, ProxyPassword: PAnsiChar); cdecl; external TarvoAfipLibrary;
procedure SetTimeOut(TimeOut: UInt32); cdecl; external TarvoAfipLibrary;
procedure AddSOAPHeader(Header: PAnsiChar); cdecl; external TarvoAfipLibrary;
function SendSOAP(Request: PAnsiChar): Int32; cdecl; external TarvoAfipLibrary;
function ReceivedSOAP(Buffer: PAnsiChar; BufferLength: UInt32; DataSize: PUInt32): Int32; cdecl; external TarvoAfipLibrary;
function GetVerboseTransfer(Buffer: PAnsiChar; BufferLength: UInt32; DataSize: PUInt32): Int32; cdecl; external TarvoAfipLibrary;
{$ELSE}
var
  GetAFIPVersion: procedure(Version: PAnsiChar); cdecl;
  SetWSAA: procedure(Url: PAnsiChar); cdecl;
  SetWSAACredentials: procedure(CertificatePath, CertificatePass: PAnsiChar); cdecl;
  SetWSAAService: procedure(Service: PAnsiChar); cdecl;
  SetWSUrl: procedure(Url: PAnsiChar); cdecl;
  SetSecurity: procedure(Level: Int32); cdecl;
  SetWebProxy: procedure(ProxyUrl, ProxyUsername, ProxyPassword: PAnsiChar); cdecl;
  SetTimeOut: procedure(TimeOut: UInt32); cdecl;
  AddSOAPHeader: procedure(Header: PAnsiChar); cdecl;
  SendSOAP: function(Request: PAnsiChar): Int32; cdecl;
  ReceivedSOAP: TCopyOut;
  GetVerboseTransfer: TCopyOut;

{ Loads the library and resolves the twelve functions; False (and nothing loaded) when it cannot. }
function LoadTarvoAfip(const Path: string = ''): Boolean;
procedure UnloadTarvoAfip;
{$ENDIF}

{ "1.0.0". }
function TarvoAfipVersion: string;
{ The buffer protocol done once: the whole answer or transfer log, which may hold NUL bytes. }
function ReceivedSOAPText: RawByteString;
function VerboseTransferText: RawByteString;
{ SendSOAP that raises ETarvoAfip on a non-zero result and returns the answer. }
function SendSOAPChecked(const Request: RawByteString): RawByteString;

implementation

constructor ETarvoAfip.CreateCode(ACode: Int32);
begin
  inherited CreateFmt('libtarvoafipdriver result %d', [ACode]);
  Code := ACode;
end;

{$IFDEF TARVO_DYNAMIC}
{$IFNDEF FPC}
type
  TLibHandle = HMODULE;
const
  NilHandle = 0;
{$ENDIF}

var
  Handle: TLibHandle = NilHandle;

function LoadTarvoAfip(const Path: string): Boolean;
var
  Name: string;

  function Resolve(const Symbol: string): Pointer;
  begin
    Result := GetProcAddress(Handle, PChar(Symbol));
    if Result = nil then
      raise ETarvoAfip.CreateFmt('the library does not export %s', [Symbol]);
  end;

begin
  Name := Path;
  if Name = '' then
    Name := GetEnvironmentVariable('TARVO_LIBRARY');
  if Name = '' then
    Name := TarvoAfipSoname;
  Handle := LoadLibrary(PChar(Name));
  Result := Handle <> NilHandle;
  if not Result then
    Exit;
  try
    @GetAFIPVersion := Resolve('GetAFIPVersion');
    @SetWSAA := Resolve('SetWSAA');
    @SetWSAACredentials := Resolve('SetWSAACredentials');
    @SetWSAAService := Resolve('SetWSAAService');
    @SetWSUrl := Resolve('SetWSUrl');
    @SetSecurity := Resolve('SetSecurity');
    @SetWebProxy := Resolve('SetWebProxy');
    @SetTimeOut := Resolve('SetTimeOut');
    @AddSOAPHeader := Resolve('AddSOAPHeader');
    @SendSOAP := Resolve('SendSOAP');
    @ReceivedSOAP := Resolve('ReceivedSOAP');
    @GetVerboseTransfer := Resolve('GetVerboseTransfer');
  except
    UnloadTarvoAfip;
    Result := False;
  end;
end;

procedure UnloadTarvoAfip;
begin
  if Handle <> NilHandle then
    FreeLibrary(Handle);
  Handle := NilHandle;
end;
{$ENDIF}

function TarvoAfipVersion: string;
var
  Text: array[0..5] of AnsiChar;
begin
  GetAFIPVersion(@Text[0]);
  Result := string(PAnsiChar(@Text[0]));
end;

{ Asks for the size with a zero length, then copies exactly that many bytes: no NUL is written. }
function CopyOut(Copy: TCopyOut): RawByteString;
var
  Size: UInt32;
  Code: Int32;
begin
  Result := '';
  Size := 0;
  Code := Copy(nil, 0, @Size);
  if (Code = AFIP_OK) and (Size > 0) then
  begin
    SetLength(Result, Size);
    Code := Copy(PAnsiChar(Result), Size, @Size);
  end;
  if Code <> AFIP_OK then
    raise ETarvoAfip.CreateCode(Code);
end;

function ReceivedSOAPText: RawByteString;
begin
  Result := CopyOut(ReceivedSOAP);
end;

function VerboseTransferText: RawByteString;
begin
  Result := CopyOut(GetVerboseTransfer);
end;

function SendSOAPChecked(const Request: RawByteString): RawByteString;
var
  Code: Int32;
begin
  Code := SendSOAP(PAnsiChar(Request));
  if Code <> AFIP_OK then
    raise ETarvoAfip.CreateCode(Code);
  Result := ReceivedSOAPText;
end;

end.
