{ invoice: authorises the Factura B of the samples through libtarvoafipinvoicing and prints its
  number, CAE and QR address.

  Usage: invoice [WSAA_URL [CERTIFICATE [PASSWORD [SERVICE [SERVICE_URL [SAMPLES]]]]]]
  Settings left off come from TARVO_WSAA_URL, TARVO_CERTIFICATE, TARVO_PASSWORD, TARVO_SERVICE,
  TARVO_SERVICE_URL and TARVO_SAMPLES (default /usr/share/tarvoafip/samples). TARVO_SALE_ID names
  the sale: run again with the same one, the sale is not invoiced twice. The ledger is ledger.sqlite
  in the working directory. The exit status is the core's result code: 0 approved, 20 rejected,
  21 outcome unknown (run the same sale again), 1-17 the exchange failed...; 66 a sample unreadable. }
program invoice;

{$MODE DELPHI}
{$H+}

uses
  SysUtils, Classes, fpjson, jsonparser, tarvoafipinvoicing;

const
  Variables: array[1..6] of string = ('TARVO_WSAA_URL', 'TARVO_CERTIFICATE', 'TARVO_PASSWORD',
    'TARVO_SERVICE', 'TARVO_SERVICE_URL', 'TARVO_SAMPLES');
  Issuer: Int64 = 20111111112; { the CUIT of the samples' certificate }

function Setting(Position: Integer): string;
begin
  if Position <= ParamCount then
    Result := ParamStr(Position)
  else
    Result := GetEnvironmentVariable(Variables[Position]);
  if (Position = 6) and (Result = '') then
    Result := '/usr/share/tarvoafip/samples';
end;

{ The host's name for the sale; a new one from the time and the process when none is given. }
function SaleId: string;
begin
  Result := GetEnvironmentVariable('TARVO_SALE_ID');
  if Result = '' then
    Result := Format('invoice-%s-%d', [FormatDateTime('yyyymmddhhnnsszzz', Now), GetProcessID]);
end;

{ The core's settings: the issuer, AFIP's addresses and the certificate. }
function SettingsJson: string;
var
  Settings: TJSONObject;
begin
  Settings := TJSONObject.Create(['cuit', Issuer, 'wsaa_url', Setting(1), 'certificate', Setting(2),
    'password', Setting(3), 'service', Setting(4), 'url', Setting(5)]);
  Result := Settings.AsJSON;
  Settings.Free;
end;

{ The sample voucher with the sale id: no CbteNro, so the next number; no CbteFch, so today. }
function VoucherJson: string;
var
  Sample: TFileStream;
  Voucher: TJSONObject;
begin
  try
    Sample := TFileStream.Create(IncludeTrailingPathDelimiter(Setting(6)) + 'factura_b.json', fmOpenRead);
    try
      Voucher := GetJSON(Sample) as TJSONObject;
    finally
      Sample.Free;
    end;
  except
    on Error: Exception do
    begin
      WriteLn(ErrOutput, 'invoice: the sample factura_b.json: ', Error.Message);
      Halt(66);
    end;
  end;
  Voucher.Add('sale_id', SaleId);
  Result := Voucher.AsJSON;
  Voucher.Free;
end;

var
  Invoicing: TTarvoInvoicing;
  Outcome: TJSONData;
begin
  {$IFDEF TARVO_DYNAMIC}
  if not LoadTarvoInvoicing then
  begin
    WriteLn(ErrOutput, 'invoice: cannot load libtarvoafipinvoicing');
    Halt(69);
  end;
  {$ENDIF}
  try
    Invoicing := TTarvoInvoicing.Create(SettingsJson);
    try
      Outcome := GetJSON(Invoicing.Authorise(VoucherJson));
    finally
      Invoicing.Free;
    end;
  except
    { Rejected, unknown or failed: the core's message says why, the outcome (if any) shows AFIP's
      Observaciones and Errors. }
    on Error: ETarvoInvoicing do
    begin
      WriteLn(ErrOutput, 'invoice: ', Error.Message);
      if Error.Output <> '' then
        WriteLn(ErrOutput, Error.Output);
      Halt(Error.Code);
    end;
  end;
  WriteLn('CbteNro ', Outcome.FindPath('CbteNro').AsInt64);
  WriteLn('CAE ', Outcome.FindPath('CAE').AsString, ' due ', Outcome.FindPath('CAEFchVto').AsString);
  WriteLn('QR ', Outcome.FindPath('qr_url').AsString);
  Outcome.Free;
end.
