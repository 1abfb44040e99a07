{ The Pascal binding's wiring for examples_test.py. invoicing_probe SETTINGS [ACTION ARGUMENT]... runs
  the actions on one TTarvoInvoicing and prints a line for each (and for a refused open):
  code, message and output, tab-separated, line ends as spaces; a receipt's bytes in hexadecimal. }
program invoicing_probe;

{$MODE DELPHI}
{$H+}

uses
  SysUtils, tarvoafipinvoicing;

procedure Report(Code: Int32; const Message, Json: string);
begin
  WriteLn(Code, #9, Message, #9, StringReplace(StringReplace(Json, #13, ' ', [rfReplaceAll]), #10, ' ', [rfReplaceAll]));
end;

function Hex(const Bytes: TBytes): string;
const
  Digits: array[0..15] of Char = '0123456789abcdef';
var
  At: Integer;
begin
  SetLength(Result, 2 * Length(Bytes));
  for At := 0 to High(Bytes) do
  begin
    Result[2 * At + 1] := Digits[Bytes[At] shr 4];
    Result[2 * At + 2] := Digits[Bytes[At] and 15];
  end;
end;

var
  Invoicing: TTarvoInvoicing;
  At: Integer;
  Action, Argument, Answer: string;
begin
  {$IFDEF TARVO_DYNAMIC}
  if not LoadTarvoInvoicing then
    Halt(69);
  {$ENDIF}
  try
    Invoicing := TTarvoInvoicing.Create(ParamStr(1));
  except
    on Error: ETarvoInvoicing do
    begin
      Report(Error.Code, Error.Message, Error.Output);
      Exit;
    end;
  end;
  At := 2;
  while At < ParamCount do
  begin
    Action := ParamStr(At);
    Argument := ParamStr(At + 1);
    Inc(At, 2);
    try
      Answer := '';
      if Action = 'authorise' then Answer := Invoicing.Authorise(Argument)
      else if Action = 'batch' then Answer := Invoicing.AuthoriseBatch(Argument)
      else if Action = 'list' then Answer := Invoicing.LedgerList(Argument)
      else if Action = 'show' then Answer := Invoicing.LedgerShow(Argument)
      else if Action = 'read' then Answer := Invoicing.ReadAnswer(Argument)
      else if Action = 'qr' then Answer := Invoicing.QrUrl(Argument)
      else if Action = 'png' then Invoicing.QrPng('https://www.afip.gob.ar/fe/qr/', Argument)
      else if Action = 'lookup' then Answer := Invoicing.Lookup(Argument)
      else if Action = 'receipt' then Answer := Hex(Invoicing.Receipt(Argument))
      else if Action = 'caea' then Answer := Invoicing.Caea(Argument)
      else if Action = 'log' then Answer := Invoicing.TransferLog
      else raise Exception.Create('unknown action ' + Action);
      Report(0, '', Answer);
    except
      on Error: ETarvoInvoicing do
        Report(Error.Code, Error.Message, Error.Output);
    end;
  end;
  Invoicing.Free;
end.
