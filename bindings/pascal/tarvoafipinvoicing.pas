{ libtarvoafipinvoicing for Free Pascal (and Lazarus) and Delphi-style Pascal: vouchers authorised at
  most once through the core's ledger, AFIP's registry asked, vouchers printed, CAEA contingency,
  FECAESolicitar answers read, AFIP's QR code made. The core does
  the work; this unit passes its JSON in and out (tarvoafipinvoicing.h names every key). Read the
  JSON with fpjson (fcl-json).

  By default the functions are linked at build time as cdecl externals (Free Pascal:
  -Fl<directory of libtarvoafipinvoicing.so>). Define TARVO_DYNAMIC to load the library at run time
  instead: call LoadTarvoInvoicing first; it looks for the path given, else TARVO_INVOICING_LIBRARY,
  else libtarvoafipinvoicing.so.1 through the dynamic loader's search path.

  TTarvoInvoicing owns one handle, that is one configuration; use each object from one thread at a
  time. Its methods return the core's JSON and raise ETarvoInvoicing on a non-zero result code, with
  the core's message and the JSON the core still gave: the outcome of a rejected voucher (20), of one
  whose outcome is unknown (21), of one issued under a CAEA (30) or of a failed exchange (1-17), a
  batch's outcomes, the person of an inactive key (27), the report of an inform that some refused (20)
  or whose outcome is unknown (21). }
unit tarvoafipinvoicing;

{$IFDEF FPC}{$MODE DELPHI}{$ENDIF}
{$H+}

interface

uses
  SysUtils{$IFDEF TARVO_DYNAMIC}{$IFDEF FPC}, dynlibs{$ENDIF}{$ENDIF};

const
  TarvoInvoicingSoname = 'libtarvoafipinvoicing.so.1';

  { Result codes, as in tarvoafipinvoicing.h; 1 to 17 are libtarvoafipdriver's (unit tarvoafip). }
  TARVO_INVOICING_OK = 0;
  TARVO_INVOICING_REJECTED = 20;
  TARVO_INVOICING_OUTCOME_UNKNOWN = 21;
  TARVO_INVOICING_SALE_CONFLICT = 22;
  TARVO_INVOICING_LEDGER_ERROR = 23;
  TARVO_INVOICING_BUSY = 24;
  TARVO_INVOICING_NOT_FOUND = 25;
  TARVO_INVOICING_UNKNOWN_CUIT = 26;
  TARVO_INVOICING_INACTIVE_KEY = 27;
  TARVO_INVOICING_REGISTRY_REFUSED = 28;
  TARVO_INVOICING_CONDITION_UNFIT = 29;
  { The header's TARVO_INVOICING_CAEA: Pascal's names ignore case, and tarvo_invoicing_caea is the function. }
  TARVO_INVOICING_CAEA_ISSUED = 30;
  TARVO_INVOICING_BAD_INPUT = 65;
  TARVO_INVOICING_INTERNAL = 70;
  TARVO_INVOICING_CANNOT_WRITE = 73;

{$IFNDEF FPC}
type
  SizeUInt = NativeUInt; { size_t: as wide as a pointer on every target this unit is for }
  PSizeUInt = ^SizeUInt;
{$ENDIF}

type
  { A non-zero result code with the core's message; Output is the JSON the core gave with it, or ''. }
  ETarvoInvoicing = class(Exception)
  public
    Code: Int32;
    Output: UTF8String;
    constructor CreateResult(ACode: Int32; const AMessage, AOutput: UTF8String);
  end;

  TTarvoInvoicing = class
  private
    FHandle: Pointer;
    function Checked(Code: Int32; Text: PAnsiChar): UTF8String;
  public
    { Settings as tarvo_invoicing_open takes them; refused settings raise ETarvoInvoicing (65). }
    constructor Create(const SettingsJson: UTF8String);
    destructor Destroy; override;
    { The outcome of one voucher, at most once per sale id. }
    function Authorise(const VoucherJson: UTF8String): UTF8String;
    { The outcomes of a JSON list of vouchers, in their order. }
    function AuthoriseBatch(const VouchersJson: UTF8String): UTF8String;
    { What AFIP's registry says of a CUIT, asked as tarvo_invoicing_lookup takes it ("cuit", "service",
      "reuse"). An inactive key (27) raises with the person in Output. }
    function Lookup(const QueryJson: UTF8String): UTF8String;
    { The printed voucher (PDF or ESC/POS) of an approved sale, byte for byte: it may hold NULs. }
    function Receipt(const RequestJson: UTF8String): TBytes;
    { A CAEA contingency command: "action" request, show, inform, no_movement or status. An inform that
      some refused (20) or whose outcome is unknown (21) raises with its report in Output. }
    function Caea(const CommandJson: UTF8String): UTF8String;
    { The ledger's sales; FilterJson '' for all. }
    function LedgerList(const FilterJson: UTF8String = ''): UTF8String;
    function LedgerShow(const SaleId: UTF8String): UTF8String;
    { The outcome that a FECAESolicitar answer gives, for hosts that send their own requests. }
    function ReadAnswer(const AnswerXml: RawByteString): UTF8String;
    { AFIP's QR address of a voucher given with the QR payload's keys. }
    function QrUrl(const VoucherJson: UTF8String): UTF8String;
    procedure QrPng(const Text, PngPath: UTF8String);
    { The last exchange with AFIP; it holds the live ticket. }
    function TransferLog: UTF8String;
    property Handle: Pointer read FHandle;
  end;

{$IFNDEF TARVO_DYNAMIC}
const
  TarvoInvoicingLibrary = {$IFDEF FPC}'tarvoafipinvoicing'{$ELSE}TarvoInvoicingSoname{$ENDIF};

function tarvo_invoicing_version: Int32; cdecl; external TarvoInvoicingLibrary;
function tarvo_invoicing_open(SettingsJson: PAnsiChar; Opened: PPointer): Int32; cdecl; external TarvoInvoicingLibrary;
procedure tarvo_invoicing_close(Invoicing: Pointer); cdecl; external TarvoInvoicingLibrary;
function tarvo_invoicing_message(Invoicing: Pointer): PAnsiChar; cdecl; external TarvoInvoicingLibrary;
function tarvo_invoicing_authorise(Invoicing: Pointer; VoucherJson: PAnsiChar; OutcomeJson: PPAnsiChar): Int32; cdecl;
  external TarvoInvoicingLibrary;
function tarvo_invoicing_authorise_batch(Invoicing: Pointer; VouchersJson: PAnsiChar; OutcomesJson: PPAnsiChar): Int32;
  cdecl; external TarvoInvoicingLibrary;
function tarvo_invoicing_caea(Invoicing: Pointer; CommandJson: PAnsiChar; ResultJson: PPAnsiChar): Int32; cdecl;
  external TarvoInvoicingLibrary;
function tarvo_invoicing_lookup(Invoicing: Pointer; QueryJson: PAnsiChar; PersonJson: PPAnsiChar): Int32; cdecl;
  external TarvoInvoicingLibrary;
function tarvo_invoicing_receipt(Invoicing: Pointer; RequestJson: PAnsiChar; Data: PPAnsiChar; Length: PSizeUInt): Int32;
  cdecl; external TarvoInvoicingLibrary;
function tarvo_invoicing_ledger_list(Invoicing: Pointer; FilterJson: PAnsiChar; SalesJson: PPAnsiChar): Int32; cdecl;
  external TarvoInvoicingLibrary;
function tarvo_invoicing_ledger_show(Invoicing: Pointer; SaleId: PAnsiChar; SaleJson: PPAnsiChar): Int32; cdecl;
  external TarvoInvoicingLibrary;
function tarvo_invoicing_read_answer(Invoicing: Pointer; AnswerXml: PAnsiChar; OutcomeJson: PPAnsiChar): Int32; cdecl;
  external TarvoInvoicingLibrary;
function tarvo_invoicing_qr_url(Invoicing: Pointer; VoucherJson: PAnsiChar; Url: PPAnsiChar): Int32; cdecl;
  external TarvoInvoicingLibrary;
function tarvo_invoicing_qr_png(Invoicing: Pointer; Text, PngPath: PAnsiChar): Int32; cdecl; external TarvoInvoicingLibrary;
function tarvo_invoicing_transfer_log(Invoicing: Pointer; Log: PPAnsiChar): Int32; cdecl; external TarvoInvoicingLibrary;
procedure tarvo_invoicing_free(Text: Pointer); cdecl; external TarvoInvoicingLibrary;
{$ELSE}
var
  tarvo_invoicing_version: function: Int32; cdecl;
  tarvo_invoicing_open: function(SettingsJson: PAnsiChar; Opened: PPointer): Int32; cdecl;
  tarvo_invoicing_close: procedure(Invoicing: Pointer); cdecl;
  tarvo_invoicing_message: function(Invoicing: Pointer): PAnsiChar; cdecl;
  tarvo_invoicing_authorise: function(Invoicing: Pointer; VoucherJson: PAnsiChar; OutcomeJson: PPAnsiChar): Int32; cdecl;
  tarvo_invoicing_authorise_batch: function(Invoicing: Pointer; VouchersJson: PAnsiChar;
    OutcomesJson: PPAnsiChar): Int32; cdecl;
  tarvo_invoicing_caea: function(Invoicing: Pointer; CommandJson: PAnsiChar; ResultJson: PPAnsiChar): Int32; cdecl;
  tarvo_invoicing_lookup: function(Invoicing: Pointer; QueryJson: PAnsiChar; PersonJson: PPAnsiChar): Int32; cdecl;
  tarvo_invoicing_receipt: function(Invoicing: Pointer; RequestJson: PAnsiChar; Data: PPAnsiChar;
    Length: PSizeUInt): Int32; cdecl;
  tarvo_invoicing_ledger_list: function(Invoicing: Pointer; FilterJson: PAnsiChar; SalesJson: PPAnsiChar): Int32; cdecl;
  tarvo_invoicing_ledger_show: function(Invoicing: Pointer; SaleId: PAnsiChar; SaleJson: PPAnsiChar): Int32; cdecl;
  tarvo_invoicing_read_answer: function(Invoicing: Pointer; AnswerXml: PAnsiChar; OutcomeJson: PPAnsiChar): Int32; cdecl;
  tarvo_invoicing_qr_url: function(Invoicing: Pointer; VoucherJson: PAnsiChar; Url: PPAnsiChar): Int32; cdecl;
  tarvo_invoicing_qr_png: function(Invoicing: Pointer; Text, PngPath: PAnsiChar): Int32; cdecl;
  tarvo_invoicing_transfer_log: function(Invoicing: Pointer; Log: PPAnsiChar): Int32; cdecl;
  tarvo_invoicing_free: procedure(Text: Pointer); cdecl;

{ Loads the library and resolves its functions; False (and nothing loaded) when it cannot. }
function LoadTarvoInvoicing(const Path: string = ''): Boolean;
procedure UnloadTarvoInvoicing;
{$ENDIF}

implementation

constructor ETarvoInvoicing.CreateResult(ACode: Int32; const AMessage, AOutput: UTF8String);
begin
  if AMessage = '' then
    inherited CreateFmt('libtarvoafipinvoicing result %d', [ACode])
  else
    inherited Create(string(AMessage));
  Code := ACode;
  Output := AOutput;
end;

{$IFDEF TARVO_DYNAMIC}
{$IFNDEF FPC}
type
  TLibHandle = HMODULE;
const
  NilHandle = 0;
{$ENDIF}

var
  LibraryHandle: TLibHandle = NilHandle;

function LoadTarvoInvoicing(const Path: string): Boolean;
var
  Name: string;

  function Resolve(const Symbol: string): Pointer;
  begin
    Result := GetProcAddress(LibraryHandle, PChar(Symbol));
    if Result = nil then
      raise ETarvoInvoicing.CreateFmt('the library does not export %s', [Symbol]);
  end;

begin
  Name := Path;
  if Name = '' then
    Name := GetEnvironmentVariable('TARVO_INVOICING_LIBRARY');
  if Name = '' then
    Name := TarvoInvoicingSoname;
  LibraryHandle := LoadLibrary(PChar(Name));
  Result := LibraryHandle <> NilHandle;
  if not Result then
    Exit;
  try
    @tarvo_invoicing_version := Resolve('tarvo_invoicing_version');
    @tarvo_invoicing_open := Resolve('tarvo_invoicing_open');
    @tarvo_invoicing_close := Resolve('tarvo_invoicing_close');
    @tarvo_invoicing_message := Resolve('tarvo_invoicing_message');
    @tarvo_invoicing_authorise := Resolve('tarvo_invoicing_authorise');
    @tarvo_invoicing_authorise_batch := Resolve('tarvo_invoicing_authorise_batch');
    @tarvo_invoicing_caea := Resolve('tarvo_invoicing_caea');
    @tarvo_invoicing_lookup := Resolve('tarvo_invoicing_lookup');
    @tarvo_invoicing_receipt := Resolve('tarvo_invoicing_receipt');
    @tarvo_invoicing_ledger_list := Resolve('tarvo_invoicing_ledger_list');
    @tarvo_invoicing_ledger_show := Resolve('tarvo_invoicing_ledger_show');
    @tarvo_invoicing_read_answer := Resolve('tarvo_invoicing_read_answer');
    @tarvo_invoicing_qr_url := Resolve('tarvo_invoicing_qr_url');
    @tarvo_invoicing_qr_png := Resolve('tarvo_invoicing_qr_png');
    @tarvo_invoicing_transfer_log := Resolve('tarvo_invoicing_transfer_log');
    @tarvo_invoicing_free := Resolve('tarvo_invoicing_free');
  except
    UnloadTarvoInvoicing;
    Result := False;
  end;
end;

procedure UnloadTarvoInvoicing;
begin
  if LibraryHandle <> NilHandle then
    FreeLibrary(LibraryHandle);
  LibraryHandle := NilHandle;
end;
{$ENDIF}

{ The bytes as they are, UTF-8, with no conversion through the system's code page. }
function CopyText(Text: PAnsiChar): UTF8String;
var
  Size: NativeInt;
begin
  Result := '';
  if Text = nil then
    Exit;
  Size := StrLen(Text);
  SetLength(Result, Size);
  if Size > 0 then
    Move(Text^, Result[1], Size);
end;

{ Text the core handed out: copied, then freed. }
function TakeText(Text: PAnsiChar): UTF8String;
begin
  Result := CopyText(Text);
  tarvo_invoicing_free(Text);
end;

{ nil for '': the core takes NULL as "none". }
function OrNil(const Text: UTF8String): PAnsiChar;
begin
  if Text = '' then
    Result := nil
  else
    Result := PAnsiChar(Text);
end;

constructor TTarvoInvoicing.Create(const SettingsJson: UTF8String);
begin
  inherited Create;
  { The handle comes back also on failure, for its message; Destroy closes it when this raises. }
  Checked(tarvo_invoicing_open(PAnsiChar(SettingsJson), @FHandle), nil);
end;

destructor TTarvoInvoicing.Destroy;
begin
  tarvo_invoicing_close(FHandle);
  inherited Destroy;
end;

function TTarvoInvoicing.Checked(Code: Int32; Text: PAnsiChar): UTF8String;
begin
  Result := TakeText(Text);
  if Code <> TARVO_INVOICING_OK then
    raise ETarvoInvoicing.CreateResult(Code, CopyText(tarvo_invoicing_message(FHandle)), Result);
end;

function TTarvoInvoicing.Authorise(const VoucherJson: UTF8String): UTF8String;
var
  Code: Int32;
  Text: PAnsiChar;
begin
  Code := tarvo_invoicing_authorise(FHandle, PAnsiChar(VoucherJson), @Text);
  Result := Checked(Code, Text);
end;

function TTarvoInvoicing.AuthoriseBatch(const VouchersJson: UTF8String): UTF8String;
var
  Code: Int32;
  Text: PAnsiChar;
begin
  Code := tarvo_invoicing_authorise_batch(FHandle, PAnsiChar(VouchersJson), @Text);
  Result := Checked(Code, Text);
end;

function TTarvoInvoicing.Lookup(const QueryJson: UTF8String): UTF8String;
var
  Code: Int32;
  Text: PAnsiChar;
begin
  Code := tarvo_invoicing_lookup(FHandle, PAnsiChar(QueryJson), @Text);
  Result := Checked(Code, Text);
end;

function TTarvoInvoicing.Receipt(const RequestJson: UTF8String): TBytes;
var
  Code: Int32;
  Data: PAnsiChar;
  Size: SizeUInt;
begin
  Data := nil;
  Size := 0;
  Code := tarvo_invoicing_receipt(FHandle, PAnsiChar(RequestJson), @Data, @Size);
  try
    Checked(Code, nil);
    SetLength(Result, Size);
    if Size > 0 then
      Move(Data^, Result[0], Size);
  finally
    tarvo_invoicing_free(Data);
  end;
end;

function TTarvoInvoicing.Caea(const CommandJson: UTF8String): UTF8String;
var
  Code: Int32;
  Text: PAnsiChar;
begin
  Code := tarvo_invoicing_caea(FHandle, PAnsiChar(CommandJson), @Text);
  Result := Checked(Code, Text);
end;

function TTarvoInvoicing.LedgerList(const FilterJson: UTF8String): UTF8String;
var
  Code: Int32;
  Text: PAnsiChar;
begin
  Code := tarvo_invoicing_ledger_list(FHandle, OrNil(FilterJson), @Text);
  Result := Checked(Code, Text);
end;

function TTarvoInvoicing.LedgerShow(const SaleId: UTF8String): UTF8String;
var
  Code: Int32;
  Text: PAnsiChar;
begin
  Code := tarvo_invoicing_ledger_show(FHandle, PAnsiChar(SaleId), @Text);
  Result := Checked(Code, Text);
end;

function TTarvoInvoicing.ReadAnswer(const AnswerXml: RawByteString): UTF8String;
var
  Code: Int32;
  Text: PAnsiChar;
begin
  Code := tarvo_invoicing_read_answer(FHandle, PAnsiChar(AnswerXml), @Text);
  Result := Checked(Code, Text);
end;

function TTarvoInvoicing.QrUrl(const VoucherJson: UTF8String): UTF8String;
var
  Code: Int32;
  Text: PAnsiChar;
begin
  Code := tarvo_invoicing_qr_url(FHandle, PAnsiChar(VoucherJson), @Text);
  Result := Checked(Code, Text);
end;

procedure TTarvoInvoicing.QrPng(const Text, PngPath: UTF8String);
begin
  Checked(tarvo_invoicing_qr_png(FHandle, PAnsiChar(Text), PAnsiChar(PngPath)), nil);
end;

function TTarvoInvoicing.TransferLog: UTF8String;
var
  Code: Int32;
  Text: PAnsiChar;
begin
  Code := tarvo_invoicing_transfer_log(FHandle, @Text);
  Result := Checked(Code, Text);
end;

end.
